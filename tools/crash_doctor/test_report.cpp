#include "tools/crash_doctor/test_report.h"

#include "common/file.h"
#include "common/strings.h"

#include <fcntl.h>
#include <future>
#include <map>
#include <memory>
#include <unistd.h>
#include <vector>

namespace vantor::tools {

namespace {

using Clock = std::chrono::steady_clock;

/// The beginning of a file: all of a parameters file, and of a dump the stack that crashed.
std::string beginningOf(const std::string& path) {
    constexpr int64_t kMostBytes = 131'072;
    const std::shared_ptr<File> file = File::open(path, "r", true);
    std::string text;
    if (file != nullptr)
        (void)file->read(&text, kMostBytes); // as much as can be had
    return text;
}

/// What stands between `begin` and `end`, of the first place where that is so; "" where it is nowhere.
std::string between(const std::string& text, const std::string& begin, const std::string& end) {
    const size_t at = text.find(begin);
    if (at == std::string::npos)
        return "";
    const size_t from = at + begin.size();
    const size_t to = text.find(end, from);
    return to != std::string::npos ? text.substr(from, to - from) : "";
}

/// The path, without extension, of the file of this kind that holds the mark; "" when there is none.
std::string findMarked(const std::string& directory, const char* extension, const std::string& mark) {
    std::vector<std::string> names;
    (void)File::listFiles(directory, false, &names, nullptr); // none, when it cannot be read
    for (const std::string& name : names) {
        const std::string path = File::joinPath(directory, name);
        if (File::extension(name) == extension && beginningOf(path).find(mark) != std::string::npos)
            return File::stripExtension(path);
    }
    return "";
}

} // namespace

TestReport::TestReport(TestCrash& crash, const std::string& directory) : m_crash(crash) {
    const std::string dump = between(
        crash.words(), "Crash! Client with PID " + std::to_string(crash.child()) + " crashed. Sending ",
        " to the crash server\n");
    if (!dump.empty()) {
        m_writer = Writer::Server;
        m_stem = File::stripExtension(dump);
        if (isThere(std::chrono::milliseconds(0)) || !link().empty())
            return;
        // The server has deleted it, for want of parameters. The process has written its own by now.
        m_writer = Writer::Nobody;
    }
    m_stem = findMarked(directory, "params", crash.mark());
    if (!m_stem.empty())
        m_writer = Writer::Process;
    else
        m_stem = findMarked(directory, "dmp", crash.mark()); // which is no report
}

std::string TestReport::link() const {
    const std::string end = "/" + File::basename(m_stem) + ".stack\n";
    const size_t at = m_crash.words().find(end);
    if (at == std::string::npos)
        return "";
    const std::string begin = "Stack trace: ";
    const size_t line = m_crash.words().rfind(begin, at) + begin.size();
    return m_crash.words().substr(line, at + end.size() - 1 - line);
}

bool TestReport::isThere(std::chrono::milliseconds patience) {
    // One that arrived is deleted after its link was printed: look in the other order.
    const bool is_there = faccessat(AT_FDCWD, dumpPath().c_str(), F_OK, AT_EACCESS) == 0;
    m_crash.awaitWords(is_there ? patience : std::chrono::milliseconds(0));
    return is_there;
}

bool TestReport::isGivenUp() const {
    return m_crash.haveWordsEnded() ||
           m_crash.words().find("Failed to upload " + dumpPath() + " to the server\n") != std::string::npos;
}

std::string TestReport::awaitLink(std::chrono::seconds patience) {
    constexpr auto kLookAgain = std::chrono::milliseconds(100); // nobody says that a report was deleted
    if (m_writer != Writer::Server)
        return ""; // the next start sends what the process wrote
    const auto limit = Clock::now() + patience;
    while (true) {
        if (!isThere(kLookAgain) || !link().empty() || isGivenUp() || Clock::now() > limit)
            return link();
    }
}

std::optional<HttpUploader::UploadResponse> TestReport::sendAgain(std::chrono::seconds patience) const {
    const std::shared_ptr<File> dump = File::open(dumpPath(), "r", true);
    if (dump == nullptr)
        return std::nullopt;

    std::map<std::string, std::string> params = {{"guid", File::basename(m_stem)}};
    std::vector<std::string> lines;
    SplitString(beginningOf(paramsPath()), "\n", &lines, kSplitDropEmpty);
    for (size_t i = 0; i + 1 < lines.size(); i += 2)
        params[lines[i]] = lines[i + 1];

    std::promise<HttpUploader::UploadResponse> completion;
    std::future<HttpUploader::UploadResponse> response = completion.get_future();
    auto uploader =
        std::make_unique<HttpUploader>(VANTOR_CRASH_COLLECTION_URL "/api/1/upload_crash/",
                                       HttpUploader::Method::PostForm, std::vector<std::string>(), false);
    uploader->upload({{"crash", dump}}, params, [&completion](const HttpUploader::UploadResponse& result) {
        completion.set_value(result);
    });
    (void)response.wait_for(patience);
    uploader.reset(); // completes what has not come to its end
    return response.get();
}

void TestReport::remove() const {
    if (m_stem.empty())
        return;
    // The parameters first: what is left is no report. Either may have gone already.
    (void)File::remove(paramsPath());
    (void)File::remove(dumpPath());
}

} // namespace vantor::tools
