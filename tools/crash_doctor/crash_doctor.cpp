// crash_doctor: crashes a test child end to end, and says what stops a report here or slows it.

#include "common/platform_paths.h"
#include "tools/crash_doctor/options.h"
#include "tools/crash_doctor/surroundings.h"
#include "tools/crash_doctor/test_crash.h"
#include "tools/crash_doctor/test_report.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace vantor::tools {

namespace {

using std::chrono::milliseconds;

/// The child has one thread and next to no memory: what it takes longer is the machine's. Measured: 14 to 36
/// ms; a fifth of the default deadline, at which a server that does not move is ended.
constexpr auto kSlowDump = milliseconds(1000);

/// What a container or a service has left when it is stopped is killed after ten seconds as a rule.
constexpr auto kSlowUpload = milliseconds(10'000);

void say(const Finding& finding) {
    (void)fputs(lineOf(finding).c_str(), stdout);
    (void)fflush(stdout); // each as it is found
}

void say(const Findings& findings) {
    for (const Finding& finding : findings)
        say(finding);
}

std::string textOf(milliseconds span) {
    return std::to_string(span.count()) + " ms";
}

Finding judgeStart(const TestStart& start) {
    if (start.status == VANTOR_CRASH_OK)
        return {Level::Ok, "crash server", start.server + " serves"};
    return {Level::Fail, start.status == VANTOR_CRASH_NO_DIRECTORY ? "crash directory" : "crash server",
            start.problem};
}

Finding judgeEnd(const TestCrash& crash) {
    if (!crash.oddEnd().empty())
        return {Level::Fail, "crash",
                "the test child was to end by its segmentation fault, and: " + crash.oddEnd()};
    const std::string held = "the crashed process was held for " + textOf(crash.held());
    if (crash.held() > kSlowDump)
        return {Level::Slow, "crash",
                held + ", and a small one should not be for more than " + textOf(kSlowDump) +
                    ". Look at the machine's load and at the disk of the crash directory."};
    return {Level::Ok, "crash", held};
}

Finding judgeWriter(Writer writer) {
    switch (writer) {
    case Writer::Server:
        return {Level::Ok, "report", "written by the crash server"};
    case Writer::Process:
        return {
            Level::Warn, "report",
            "written by the process itself, as the crash server could not: the next start of an application "
            "would send it. See the lines above."};
    default:
        return {Level::Fail, "report", "there is none. See the lines above."};
    }
}

Finding judgeArrival(const std::string& link, milliseconds span) {
    if (span > kSlowUpload)
        return {Level::Slow, "upload",
                "arrived after " + textOf(span) +
                    "; a container or service that stops would have ended the server before. " + link};
    return {Level::Ok, "upload", "arrived after " + textOf(span) + ": " + link};
}

/// Why the server could not send it: it does not say, and so this process tries itself. False when there is
/// no report any more.
bool findOutWhy(const TestReport& report, const TestCrash& crash, std::chrono::seconds patience) {
    const std::string& words = crash.words();
    const size_t complaint = words.find("Cannot load libcurl.so.4");
    if (complaint != std::string::npos) {
        say({Level::Fail, "libcurl",
             words.substr(complaint, words.find('\n', complaint) - complaint) +
                 ". Install it (Debian: libcurl4), and look at LD_LIBRARY_PATH."});
        return true;
    }
    const std::optional<HttpUploader::UploadResponse> response = report.sendAgain(patience);
    if (!response)
        say({Level::Fail, "report",
             "it has gone: another crash server has sent it, or somebody has deleted it."});
    else if (response->error != 0)
        say(explainFailure(*response));
    else
        say({Level::Warn, "upload",
             "the same report arrived when crash_doctor sent it itself: the way is open, and the crash "
             "server's own attempt failed or did not come."});
    return response.has_value();
}

/// What the child and its server said, for whoever looks after them.
void quote(const std::string& words) {
    std::istringstream stream(words);
    for (std::string line; std::getline(stream, line);)
        printf("      | %s\n", line.c_str());
}

int diagnose(const Options& options) {
    if (!options.data_home.empty())
        (void)setenv("XDG_DATA_HOME", options.data_home.c_str(), 1); // fails for want of memory alone
    const std::string directory = platform_paths::localStoragePath() + "/crash";

    say(checkProcess());
    say(trySystemCalls());
    say(checkLimits());
    say(checkDirectory(directory));
    say(checkUploadSettings());

    TestCrash crash(options);
    say(judgeStart(crash.start()));
    if (crash.start().has_begun)
        say(judgeEnd(crash));

    TestReport report(crash, directory);
    say(judgeWriter(report.writer()));
    if (report.writer() == Writer::Nobody) {
        report.remove();
        quote(crash.words());
        return kNoReport;
    }

    const auto start = std::chrono::steady_clock::now();
    const std::string link = report.awaitLink(options.patience);
    if (!link.empty()) {
        say(judgeArrival(link,
                         std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start)));
        report.remove(); // as the server is about to
        return kArrived;
    }
    if (report.writer() == Writer::Server)
        say({Level::Fail, "upload",
             "the report did not arrive. The next line says why, as far as it shows."});
    const bool is_there = findOutWhy(report, crash, options.patience);
    quote(crash.words());
    if (!options.keeps_report)
        report.remove();
    return is_there ? kDidNotArrive : kNoReport;
}

} // namespace

} // namespace vantor::tools

int main(int argc, char** argv) {
    using namespace vantor::tools;
    const std::variant<Options, EarlyEnd> parsed = parseOptions(argc, argv);
    if (const EarlyEnd* end = std::get_if<EarlyEnd>(&parsed)) {
        (void)fputs(end->text.c_str(), end->status == 0 ? stdout : stderr);
        return end->status;
    }
    return diagnose(std::get<Options>(parsed));
}
