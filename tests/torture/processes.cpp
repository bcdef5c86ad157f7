#include "tests/torture/processes.h"

#include "tests/support/descriptor.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>

namespace vantor::torture {

namespace {

pid_t numberAfter(const char* text, const char* label) {
    const char* const at = strstr(text, label);
    return at != nullptr ? static_cast<pid_t>(atoi(at + strlen(label))) : -1;
}

} // namespace

std::optional<ProcessFacts> factsOf(pid_t thread) {
    const test::Descriptor file(
        open(("/proc/" + std::to_string(thread) + "/status").c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 4096> text = {};
    if (read(file.get(), text.data(), text.size() - 1) <= 0)
        return std::nullopt;

    ProcessFacts facts;
    facts.thread = thread;
    facts.process = numberAfter(text.data(), "\nTgid:\t");
    facts.parent = numberAfter(text.data(), "\nPPid:\t");
    const char* const name = text.data() + strlen("Name:\t");
    facts.name.assign(name, strcspn(name, "\n"));
    const char* const state = strstr(text.data(), "\nState:\t");
    facts.state = state != nullptr ? state[strlen("\nState:\t")] : '\0';
    return facts;
}

std::vector<ProcessFacts> strangers() {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc"), closedir);
    std::vector<ProcessFacts> all;
    while (const dirent* const entry = directory ? readdir(directory.get()) : nullptr) {
        const pid_t pid = atoi(entry->d_name); // 0 for what is no number
        if (pid <= 1 || pid == getpid())
            continue;
        const std::optional<ProcessFacts> facts = factsOf(pid);
        if (facts && facts->state != 'Z' && facts->state != 'X')
            all.push_back(*facts);
    }
    return all;
}

} // namespace vantor::torture
