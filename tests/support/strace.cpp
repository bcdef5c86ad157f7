#include "tests/support/strace.h"

#include "tests/support/programs.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace vantor::test {

namespace {

std::vector<std::string> linesOf(const std::string& path) {
    std::ifstream stream(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

} // namespace

Strace::Strace(std::string directory, std::string options)
    : m_directory(std::move(directory) + "/strace"),
      m_options(std::move(options)) {
    std::filesystem::create_directory(m_directory);
}

std::string Strace::server() const {
    return "strace -D -ff -o " + m_directory + "/thread " + m_options + " " + kCrashServer;
}

std::vector<std::string> Strace::calls(int thread) const {
    return linesOf(m_directory + "/thread." + std::to_string(thread));
}

std::vector<std::vector<std::string>> Strace::threadsThatCalled(const std::string& start) const {
    std::vector<std::vector<std::string>> threads;
    for (const auto& entry : std::filesystem::directory_iterator(m_directory)) {
        const std::vector<std::string> calls = linesOf(entry.path());
        if (std::any_of(calls.begin(), calls.end(),
                        [&](const auto& call) { return call.starts_with(start); }))
            threads.push_back(calls);
    }
    return threads;
}

} // namespace vantor::test
