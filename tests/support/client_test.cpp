#include "tests/support/client_test.h"

#include "tests/support/eventually.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace vantor::test {

namespace {

bool isNumber(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// All that /proc shows; a process that ends meanwhile may be missing.
std::vector<pid_t> processes() {
    std::vector<pid_t> pids;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        if (const std::string name = entry.path().filename(); isNumber(name))
            pids.push_back(std::stoi(name));
    }
    return pids;
}

/// "" for a process that has gone, be it in the middle.
std::string readProcessFile(pid_t pid, const std::string& name) {
    const Descriptor file(open(("/proc/" + std::to_string(pid) + "/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> text = {};
    const ssize_t size = read(file.get(), text.data(), text.size());
    return size > 0 ? std::string(text.data(), static_cast<size_t>(size)) : "";
}

std::string commandOf(pid_t pid) {
    const std::string command = readProcessFile(pid, "comm");
    return command.substr(0, command.find('\n'));
}

/// 'T': stopped; 0: it has gone.
char stateOf(pid_t pid) {
    const std::string status = readProcessFile(pid, "stat");
    const size_t end = status.rfind(") ");
    return end != std::string::npos ? status[end + 2] : '\0';
}

std::vector<pid_t> servers() {
    std::vector<pid_t> pids = processes();
    std::erase_if(pids, [](pid_t pid) { return commandOf(pid) != "crash_server" || stateOf(pid) == 'Z'; });
    return pids;
}

/// Who is there besides the test.
std::vector<std::string> strangers() {
    std::vector<std::string> names;
    for (const pid_t pid : processes()) {
        if (pid != 1 && pid != getpid())
            names.push_back(std::to_string(pid) + " " + commandOf(pid));
    }
    return names;
}

bool isStopped(pid_t pid) {
    const auto tasks = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task");
    return std::all_of(begin(tasks), end(tasks),
                       [](const auto& task) { return stateOf(std::stoi(task.path().filename())) == 'T'; });
}

} // namespace

ClientTest::~ClientTest() {
    m_application.reset();
    expectNobodyIsLeft();
}

std::unique_ptr<Application> ClientTest::startClient() const {
    return startApplication(kCrashingApplication);
}

void ClientTest::startService(const std::string& server, std::chrono::milliseconds deadline,
                              std::chrono::milliseconds start_deadline) const {
    tell("start " + server + " " + std::to_string(deadline.count()) + " " +
         std::to_string(start_deadline.count()));
    EXPECT_EQ("0", tell("set product sample"));
}

void ClientTest::start(const std::string& server, std::chrono::milliseconds deadline,
                       std::chrono::milliseconds start_deadline) {
    m_application = startClient();
    startService(server, deadline, start_deadline);
}

pid_t ClientTest::serverPid() {
    std::vector<pid_t> pids;
    EXPECT_TRUE(eventually([&] { return (pids = servers()).size() == 1; }));
    return pids.size() == 1 ? pids[0] : -1;
}

void ClientTest::stopServer() {
    const pid_t pid = serverPid();
    EXPECT_EQ(0, kill(pid, SIGSTOP));
    EXPECT_TRUE(eventually([pid] { return isStopped(pid); }));
}

void ClientTest::killServer() {
    const pid_t pid = serverPid();
    EXPECT_EQ(0, kill(pid, SIGKILL));
    EXPECT_TRUE(eventually([pid] { return stateOf(pid) == '\0'; }));
}

void ClientTest::expectNobodyIsLeft() {
    EXPECT_TRUE(eventually([] { return strangers().size() == servers().size(); }));
    for (const pid_t pid : servers())
        (void)kill(pid, SIGKILL);
    EXPECT_TRUE(eventually([] { return strangers().empty(); }));
    EXPECT_THAT(strangers(), testing::IsEmpty());
}

Left ClientTest::left() const {
    Left left;
    if (!exists(crashDirectory()))
        return left;
    for (const std::string& name : crashFiles()) {
        const std::string stem = stemOf(name);
        const bool is_dump = name == stem + ".dmp";
        const bool is_pair = exists(pathOf(stem + ".dmp")) && exists(pathOf(stem + ".params"));
        if (is_dump && is_pair) {
            WaitingReport report = {stem, {}};
            const Descriptor dump(open(pathOf(name).c_str(), O_RDONLY | O_CLOEXEC));
            if (client::readMinidump(dump.get(), &report.crash) == client::MinidumpState::Whole)
                left.reports.push_back(report);
            else
                ++left.broken_pairs;
        } else if (is_dump) {
            ++left.lone_dumps;
        } else if (!is_pair) {
            left.others.push_back(name);
        }
    }
    return left;
}

std::vector<ReceivedRequest> ClientTest::sendReports() {
    const size_t count = left().reports.size();
    openCollector({});
    const auto next = startGuarded();
    awaitUploads(count);
    endQuietly(*next);
    return collector().requests();
}

} // namespace vantor::test
