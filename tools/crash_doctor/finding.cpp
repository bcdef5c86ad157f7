#include "tools/crash_doctor/finding.h"

#include <algorithm>
#include <cstring>
#include <fstream>

namespace vantor::tools {

namespace {

const char* wordOf(Level level) {
    switch (level) {
    case Level::Ok:
        return "ok    ";
    case Level::Slow:
        return "slow  ";
    case Level::Warn:
        return "warn  ";
    default:
        return "FAIL  ";
    }
}

} // namespace

std::string lineOf(const Finding& finding) {
    std::string line = wordOf(finding.level) + finding.subject + ": " + finding.text;
    std::replace(line.begin(), line.end(), '\n', ' '); // paths may hold anything
    return line + "\n";
}

std::string errorText(int error) {
    const char* const text = strerrordesc_np(error);
    return text != nullptr ? text : "error " + std::to_string(error);
}

std::string ownStatus(std::string_view name) {
    std::ifstream stream("/proc/self/status");
    for (std::string line; std::getline(stream, line);) {
        if (line.starts_with(name) && line.substr(name.size(), 2) == ":\t")
            return line.substr(name.size() + 2);
    }
    return "";
}

std::string firstLine(const std::string& path) {
    std::ifstream stream(path);
    std::string line;
    std::getline(stream, line);
    return line;
}

} // namespace vantor::tools
