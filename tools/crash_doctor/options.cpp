#include "tools/crash_doctor/options.h"

#include <charconv>
#include <getopt.h>

namespace vantor::tools {

const char* const kUsage =
    "usage: crash_doctor [OPTION...]\n"
    "\n"
    "Crashes a test child right here, and says what in this machine, container or\n"
    "sandbox stops a crash report or slows it. Run it as the application runs: as the\n"
    "same user, with the same environment and limits.\n"
    "\n"
    "  --server PATH     the crash server's executable (\"crash_server\" beside this\n"
    "                    program, else the installed one)\n"
    "  --data-home DIR   the directory below which reports are kept, an absolute path\n"
    "                    ($XDG_DATA_HOME, else ~/.local/share)\n"
    "  --wait SECONDS    how long the test report may take to arrive, 1 to 3600 (100)\n"
    "  --keep            leaves a test report that did not arrive in the crash directory,\n"
    "                    where the application's next start sends it\n"
    "  --help, --version\n"
    "\n"
    "A line for each thing that was looked at: ok, slow, warn or FAIL, what was seen,\n"
    "and what to do.\n"
    "\n"
    "Exit status: 0 a report was written and arrived, 1 wrong use, 2 a report was\n"
    "written and did not arrive, 3 no report.\n";

namespace {

enum Chosen { kServer = 1, kDataHome, kWait, kKeep, kHelp, kVersion };

constexpr option kLongOptions[] = {{"server", required_argument, nullptr, kServer},
                                   {"data-home", required_argument, nullptr, kDataHome},
                                   {"wait", required_argument, nullptr, kWait},
                                   {"keep", no_argument, nullptr, kKeep},
                                   {"help", no_argument, nullptr, kHelp},
                                   {"version", no_argument, nullptr, kVersion},
                                   {}};

EarlyEnd wrong(const std::string& what) {
    return {"crash_doctor: " + what + "\nTry 'crash_doctor --help'.\n", kWrongUse};
}

/// What is wrong with the value; "" when nothing is.
std::string apply(int chosen, const std::string& value, Options* options) {
    constexpr int kLongestWait = 3600;
    switch (chosen) {
    case kServer:
        options->server = value;
        return value.empty() ? "--server must not be empty" : "";
    case kDataHome:
        options->data_home = value;
        return value.starts_with('/') ? "" : "--data-home wants an absolute path, and not '" + value + "'";
    case kWait: {
        int seconds = 0;
        const char* const end = value.data() + value.size();
        const auto [stop, error] = std::from_chars(value.data(), end, seconds);
        options->patience = std::chrono::seconds(seconds);
        const bool is_good = error == std::errc() && stop == end && seconds >= 1 && seconds <= kLongestWait;
        return is_good ? "" : "--wait wants 1 to 3600 seconds, and not '" + value + "'";
    }
    default:
        options->keeps_report = true;
        return "";
    }
}

} // namespace

std::variant<Options, EarlyEnd> parseOptions(int argc, char** argv) {
    Options options;
    opterr = 0; // the messages are ours
    for (int chosen = 0; (chosen = getopt_long(argc, argv, "+:", kLongOptions, nullptr)) != -1;) {
        const std::string given = argv[optind - 1];
        if (chosen == kHelp)
            return EarlyEnd{kUsage, 0};
        if (chosen == kVersion)
            return EarlyEnd{"crash_doctor " VANTOR_VERSION "\n", 0};
        if (chosen == ':')
            return wrong(given + " wants a value");
        if (chosen == '?')
            return wrong("there is no option " +
                         (optopt != 0 ? std::string("-") + static_cast<char>(optopt) : given));
        const std::string fault = apply(chosen, optarg != nullptr ? optarg : "", &options);
        if (!fault.empty())
            return wrong(fault);
    }
    if (optind < argc)
        return wrong(std::string("'") + argv[optind] + "' belongs to no option");
    return options;
}

} // namespace vantor::tools
