#include "tests/support/process_resources.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace vantor::test {

namespace {

size_t entriesOf(const std::string& directory) {
    size_t count = 0;
    std::error_code has_gone;
    for (std::filesystem::directory_iterator entry(directory, has_gone), end; !has_gone && entry != end;
         entry.increment(has_gone))
        ++count;
    return count;
}

} // namespace

ProcessResources resourcesOf(pid_t pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    ProcessResources resources;
    resources.descriptors = entriesOf(process + "/fd");
    resources.threads = entriesOf(process + "/task");
    std::ifstream file(process + "/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
        const size_t end = line.find(':');
        if (line.starts_with("Private_Dirty:"))
            resources.private_kilobytes = std::stoull(line.substr(end + 1));
        else if (line.starts_with("Rss:"))
            resources.resident_kilobytes = std::stoull(line.substr(end + 1));
    }
    return resources;
}

} // namespace vantor::test
