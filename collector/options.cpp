#include "collector/options.h"

#include <charconv>
#include <getopt.h>
#include <iterator>
#include <optional>
#include <vector>

namespace vantor::collector {

const char* const kUsage =
    "usage: crash_collector --certificate FILE --key FILE --data DIR [OPTION...]\n"
    "\n"
    "Receives crash reports over HTTPS, keeps them in DIR, and shows their stack traces.\n"
    "Ends on SIGTERM or SIGINT, after the requests in hand.\n"
    "\n"
    "  --certificate FILE    the server's certificate and what it is signed by, in PEM\n"
    "  --key FILE            the certificate's private key, in PEM\n"
    "  --data DIR            where reports are kept; made if it is missing\n"
    "  --listen ADDR:PORT    numeric, such as 0.0.0.0:8443 or [::]:8443 (127.0.0.1:8443)\n"
    "  --symbols DIR         Breakpad's symbol store (symbols/ in the data directory)\n"
    "  --symbol-key FILE     the key that sym_upload must show: the first line of FILE;\n"
    "                        without it no symbols are taken\n"
    "\n"
    "Bounds, each with its default:\n"
    "  --max-body BYTES      of a whole upload (68157440)\n"
    "  --max-dump BYTES      of a minidump (67108864)\n"
    "  --max-fields COUNT    of parameters of a report (25601)\n"
    "  --max-field-bytes BYTES  of all their names and values (131072)\n"
    "  --max-name BYTES      of a parameter's name (128)\n"
    "  --max-value BYTES     of a parameter's value (512)\n"
    "  --max-symbols BYTES   of a symbol file (1073741824)\n"
    "  --keep-free BYTES     of the disk: with less, nothing is taken (268435456)\n"
    "  --connections COUNT   at one time; more wait for their turn (4096)\n"
    "  --connections-per-address COUNT  of those; more are closed (1024)\n"
    "  --silence SECONDS     after which a connection is closed (60)\n"
    "\n"
    "  --help, --version\n";

namespace {

constexpr int kUsageError = 2;

/// An option with a value: a text, or a number of at least 1. A function finds its place.
struct Setting {
    const char* name;
    std::string* (*text)(Options&);
    uint64_t* (*number)(Options&);
};

constexpr Setting kSettings[] = {
    {"certificate", [](Options& o) { return &o.certificate_file; }, nullptr},
    {"key", [](Options& o) { return &o.key_file; }, nullptr},
    {"data", [](Options& o) { return &o.data_directory; }, nullptr},
    {"symbols", [](Options& o) { return &o.symbols_directory; }, nullptr},
    {"symbol-key", [](Options& o) { return &o.symbol_key_file; }, nullptr},
    {"max-body", nullptr, [](Options& o) { return &o.form.body_bytes; }},
    {"max-dump", nullptr, [](Options& o) { return &o.form.file_bytes; }},
    {"max-fields", nullptr, [](Options& o) { return &o.form.fields; }},
    {"max-field-bytes", nullptr, [](Options& o) { return &o.form.field_bytes; }},
    {"max-name", nullptr, [](Options& o) { return &o.form.name_bytes; }},
    {"max-value", nullptr, [](Options& o) { return &o.form.value_bytes; }},
    {"max-symbols", nullptr, [](Options& o) { return &o.most_symbol_bytes; }},
    {"keep-free", nullptr, [](Options& o) { return &o.keep_free_bytes; }},
    {"connections-per-address", nullptr, [](Options& o) { return &o.connections_per_address; }},
    {"connections", nullptr, [](Options& o) { return &o.connections; }},
    {"silence", nullptr, [](Options& o) { return &o.silence_seconds; }},
};
constexpr int kListen = static_cast<int>(std::size(kSettings));
constexpr int kHelp = kListen + 1;
constexpr int kVersion = kListen + 2;

EarlyEnd wrong(const std::string& what) {
    return {"crash_collector: " + what + "\nTry 'crash_collector --help'.\n", kUsageError};
}

std::vector<option> longOptions() {
    std::vector<option> options;
    for (const Setting& setting : kSettings)
        options.push_back({setting.name, required_argument, nullptr, static_cast<int>(options.size())});
    options.push_back({"listen", required_argument, nullptr, kListen});
    options.push_back({"help", no_argument, nullptr, kHelp});
    options.push_back({"version", no_argument, nullptr, kVersion});
    options.push_back({});
    return options;
}

template <typename Number>
std::optional<Number> numberIn(const std::string& text) {
    Number number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return !text.empty() && error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

bool setListen(const std::string& text, Options* options) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        return false;

    const std::optional<uint16_t> port = numberIn<uint16_t>(text.substr(colon + 1));
    std::string address = text.substr(0, colon);
    if (address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    else if (address.find(':') != std::string::npos)
        return false;
    if (!port || address.empty())
        return false;

    options->address = address;
    options->port = *port;
    return true;
}

std::optional<EarlyEnd> apply(int chosen, const std::string& value, Options* options) {
    if (chosen == kListen) {
        if (setListen(value, options))
            return std::nullopt;
        return wrong("--listen wants ADDR:PORT, such as 127.0.0.1:8443 or [::]:8443, and not '" + value +
                     "'");
    }

    const Setting& setting = kSettings[chosen];
    const std::string name = std::string("--") + setting.name;
    if (value.empty())
        return wrong(name + " must not be empty");
    if (setting.text != nullptr) {
        *setting.text(*options) = value;
        return std::nullopt;
    }
    const std::optional<uint64_t> number = numberIn<uint64_t>(value);
    constexpr uint64_t kMost = uint64_t(1) << 40; // sums and products of such numbers cannot overflow
    if (!number || *number == 0 || *number > kMost)
        return wrong(name + " wants a whole number from 1 up, and not '" + value + "'");
    *setting.number(*options) = *number;
    return std::nullopt;
}

std::optional<EarlyEnd> faultOf(const Options& options) {
    if (options.certificate_file.empty())
        return wrong("--certificate is missing: the file of the server's certificate, in PEM");
    if (options.key_file.empty())
        return wrong("--key is missing: the file of the certificate's private key, in PEM");
    if (options.data_directory.empty())
        return wrong("--data is missing: the directory that reports are kept in");
    if (options.form.file_bytes >= options.form.body_bytes)
        return wrong("--max-body must be larger than --max-dump: a form has more in it than the dump");
    return std::nullopt;
}

} // namespace

std::variant<Options, EarlyEnd> parseOptions(int argc, char** argv) {
    Options options;
    const std::vector<option> long_options = longOptions();
    opterr = 0; // the messages are ours
    optind = 0; // from the beginning, at every call
    for (int chosen = 0; (chosen = getopt_long(argc, argv, "+:", long_options.data(), nullptr)) != -1;) {
        const std::string given = argv[optind - 1];
        if (chosen == kHelp)
            return EarlyEnd{kUsage, 0};
        if (chosen == kVersion)
            return EarlyEnd{"crash_collector " VANTOR_VERSION "\n", 0};
        if (chosen == ':')
            return wrong(given + " wants a value");
        if (chosen == '?')
            return wrong("there is no option " +
                         (optopt != 0 ? std::string("-") + static_cast<char>(optopt) : given));
        if (std::optional<EarlyEnd> end = apply(chosen, optarg, &options))
            return *end;
    }
    if (optind < argc)
        return wrong(std::string("'") + argv[optind] + "' belongs to no option");
    if (std::optional<EarlyEnd> end = faultOf(options))
        return *end;

    if (options.symbols_directory.empty())
        options.symbols_directory = options.data_directory + "/symbols";
    return options;
}

} // namespace vantor::collector
