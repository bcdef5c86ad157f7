#include "tests/support/application.h"

#include "tests/support/eventually.h"
#include "tests/support/namespaces.h"
#include "tests/support/pipe.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>

namespace vantor::test {

namespace {

constexpr int kAnswerLimitMilliseconds = 30'000;

pid_t startApplication(const char* program, int standard_input, int standard_output, int standard_error) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, standard_input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, standard_output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, standard_error, STDERR_FILENO);
    std::string name = program;
    std::array<char*, 2> arguments = {name.data(), nullptr};
    pid_t pid = -1;
    EXPECT_EQ(0, posix_spawn(&pid, program, &actions, nullptr, arguments.data(), environ));
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

} // namespace

ClientRecord record(std::string_view name, std::string_view value) {
    ClientRecord record;
    std::copy_n(name.begin(), std::min(name.size(), sizeof(record.name)), record.name);
    std::copy_n(value.begin(), std::min(value.size(), sizeof(record.value)), record.value);
    return record;
}

std::string bytesOf(const std::vector<ClientRecord>& records) {
    return std::string(reinterpret_cast<const char*>(records.data()), records.size() * sizeof(ClientRecord));
}

Application::Application(int standard_error, const char* program) {
    Pipe commands;
    Pipe answers;
    m_pid = startApplication(program, commands.reading.get(), answers.writing.get(), standard_error);
    m_commands = std::move(commands.writing);
    m_answers = std::move(answers.reading);
}

Application::~Application() {
    if (!m_has_ended)
        kill();
}

void Application::send(const std::string& command) {
    const std::string line = command + "\n";
    EXPECT_EQ(static_cast<ssize_t>(line.size()), write(m_commands.get(), line.data(), line.size()));
}

/// The next line; empty when the application ended first.
std::optional<std::string> Application::receive() {
    while (m_received.find('\n') == std::string::npos) {
        pollfd entry = {.fd = m_answers.get(), .events = POLLIN, .revents = 0};
        std::array<char, 4096> piece = {};
        if (poll(&entry, 1, kAnswerLimitMilliseconds) != 1) {
            ADD_FAILURE() << "The application does not answer";
            return std::nullopt;
        }
        const ssize_t length = read(m_answers.get(), piece.data(), piece.size());
        if (length <= 0)
            return std::nullopt;
        m_received.append(piece.data(), static_cast<size_t>(length));
    }
    const size_t length = m_received.find('\n');
    const std::string line = m_received.substr(0, length);
    m_received.erase(0, length + 1);
    return line;
}

std::string Application::tell(const std::string& command) {
    send(command);
    const std::optional<std::string> answer = receive();
    EXPECT_TRUE(answer.has_value()) << "The application did not survive: " << command;
    return answer.value_or("");
}

void Application::startServer(const std::string& program) {
    m_server_pid = std::stoi(tell("start " + program));
}

void Application::shakeHands() {
    EXPECT_EQ("01", tell("greeting"));
    tell("announce");
}

void Application::guard() {
    tell("guard");
}

void Application::annotate(const std::vector<ClientRecord>& records) {
    tell("load " + store(bytesOf(records)));
}

std::string Application::store(const std::string& records) {
    const std::string path = m_records / "records";
    writeFile(path, records);
    return path;
}

std::string Application::crash(const std::string& kind) {
    send("crash " + kind);
    EXPECT_EQ(std::nullopt, receive());
    return awaitEnd();
}

Application::Child Application::inChild(const std::string& commands) {
    std::istringstream answer(tell("child " + commands));
    pid_t pid = -1;
    int status = -1;
    answer >> pid >> status;
    return {pid, describeEnd(status)};
}

std::string Application::end() {
    m_commands.reset();
    return awaitEnd();
}

void Application::kill() {
    EXPECT_EQ(0, ::kill(m_pid, SIGKILL));
    EXPECT_EQ("signal 9", awaitEnd());
}

std::string Application::awaitEnd() {
    int status = 0;
    EXPECT_TRUE(eventually([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }));
    m_has_ended = true;
    m_has_core_file = WIFSIGNALED(status) && WCOREDUMP(status);
    return describeEnd(status);
}

std::string Application::serverEnd() {
    if (!m_has_ended)
        return describeEnd(std::stoi(tell("reap")));

    const std::optional<int> status = waitForOrphan(m_server_pid);
    return status ? describeEnd(*status) : "still there";
}

} // namespace vantor::test
