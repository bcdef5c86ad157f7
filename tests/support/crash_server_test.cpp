#include "tests/support/crash_server_test.h"

#include "tests/support/eventually.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sstream>

namespace vantor::test {

namespace {

constexpr uint16_t kCollectorPort = 8443; // a default build's

size_t countOf(const std::string& part, const std::string& text) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

} // namespace

Fields fieldsOf(const ReceivedRequest& report) {
    Fields fields;
    for (const FormPart& part : report.form) {
        if (part.filename)
            continue;
        EXPECT_TRUE(fields.emplace(part.name, part.body).second) << "twice: " << part.name;
    }
    return fields;
}

Fields annotationsOf(const ReceivedRequest& report) {
    Fields fields = fieldsOf(report);
    fields.erase("guid");
    fields.erase("time");
    return fields;
}

std::string dumpNameOf(const ReceivedRequest& report) {
    const FormPart* part = report.part("crash");
    return part != nullptr ? part->filename.value_or("") : "";
}

std::string dumpOf(const ReceivedRequest& report) {
    const FormPart* part = report.part("crash");
    return part != nullptr ? part->body : "";
}

std::string stemOf(const std::string& name) {
    return std::filesystem::path(name).stem();
}

CrashServerTest::CrashServerTest()
    : m_words(open((m_directory / "words").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
    for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
        unsetenv(name);
    setenv("XDG_DATA_HOME", directory().c_str(), 1);
    setenv("SSL_CERT_FILE", m_authority.certificateFile().c_str(), 1);
    openCollector({});
}

std::unique_ptr<Application> CrashServerTest::startApplication(const char* program) const {
    return std::make_unique<Application>(m_words.get(), program);
}

std::unique_ptr<Application> CrashServerTest::startGuarded(const std::string& server) const {
    std::unique_ptr<Application> application = startApplication();
    application->startServer(server);
    application->shakeHands();
    application->guard();
    return application;
}

void CrashServerTest::openCollector(TlsServer::Options options) {
    if (options.certificate_file.empty()) {
        const CertificateFiles files = m_authority.issue("collector");
        options.certificate_file = files.certificate;
        options.key_file = files.key;
    }
    options.port = kCollectorPort;
    m_collector.reset();
    m_collector = std::make_unique<TlsServer>(options);
}

std::vector<ReceivedRequest> CrashServerTest::reports(size_t count) {
    EXPECT_TRUE(collector().waitForRequests(count)) << words();
    return collector().requests();
}

ReceivedRequest CrashServerTest::onlyReport() {
    const std::vector<ReceivedRequest> all = reports(1);
    EXPECT_THAT(all, testing::SizeIs(1));
    return all.empty() ? ReceivedRequest() : all.front();
}

std::vector<std::string> CrashServerTest::crashFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(crashDirectory()))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

void CrashServerTest::leavePair(const std::string& stem, const std::string& params,
                                const std::string& dump) const {
    leaveFile(stem + ".params", params);
    leaveFile(stem + ".dmp", dump);
}

void CrashServerTest::leaveFile(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(crashDirectory());
    writeFile(pathOf(name), content);
}

std::string CrashServerTest::words() const {
    return readFile(m_directory / "words");
}

std::vector<std::string> CrashServerTest::lines() const {
    std::istringstream stream(words());
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

size_t CrashServerTest::countOfLines(const std::string& start) const {
    const std::vector<std::string> all = lines();
    return static_cast<size_t>(std::count_if(
        all.begin(), all.end(), [&](const std::string& line) { return line.starts_with(start); }));
}

void CrashServerTest::awaitWords(const std::string& text, size_t count) const {
    EXPECT_TRUE(eventually([&] { return countOf(text, words()) >= count; }))
        << "not said: " << text << "\nbut:\n"
        << words();
}

void CrashServerTest::endQuietly(Application& application) {
    EXPECT_EQ("exit 0", application.end());
    EXPECT_EQ("exit 0", application.serverEnd());
}

} // namespace vantor::test
