#include "client/guardian_memory.h"

#include <cstring>
#include <new>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace vantor::client {

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kGuardianStack = 8 * kPage;
constexpr size_t kServerStack = 4 * kPage; // until the program runs
constexpr size_t kStacks = kPage + kGuardianStack + kPage + kServerStack;

constexpr std::string_view kDataHome = "XDG_DATA_HOME=";

std::vector<std::string> environmentWith(const std::string& data_home) {
    std::vector<std::string> environment;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        if (data_home.empty() || strncmp(*variable, kDataHome.data(), kDataHome.size()) != 0)
            environment.emplace_back(*variable);
    }
    if (!data_home.empty())
        environment.push_back(std::string(kDataHome) + data_home);
    return environment;
}

size_t sizeOfTexts(const std::string& program, const std::vector<std::string>& environment) {
    size_t size = program.size() + 1;
    for (const std::string& variable : environment)
        size += variable.size() + 1;
    return size;
}

/// Copies a text with its end, and moves on behind it.
char* place(const std::string& text, char*& at) {
    char* const copy = at;
    at = stpcpy(at, text.c_str()) + 1;
    return copy;
}

/// Null when there is none; errno says why.
char* mapMemory(size_t size, int kind) {
    void* const mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, kind | MAP_ANONYMOUS, -1, 0);
    return mapping != MAP_FAILED ? static_cast<char*>(mapping) : nullptr;
}

} // namespace

GuardianMemory::GuardianMemory(const std::string& program, const std::string& data_home)
    : m_owner(getpid()),
      m_stacks(mapMemory(kStacks, MAP_PRIVATE)) {
    const std::vector<std::string> variables = environmentWith(data_home);
    m_shared_size =
        sizeof(GuardianState) + (variables.size() + 1) * sizeof(char*) + sizeOfTexts(program, variables);
    char* const shared = m_stacks != nullptr ? mapMemory(m_shared_size, MAP_SHARED) : nullptr;
    if (shared == nullptr)
        return;

    (void)mprotect(m_stacks, kPage, PROT_NONE); // without guards the stacks are good enough
    (void)mprotect(m_stacks + kPage + kGuardianStack, kPage, PROT_NONE);
    (void)madvise(m_stacks, kStacks, MADV_DONTFORK);

    m_state = new (shared) GuardianState;
    char** const environment = reinterpret_cast<char**>(m_state + 1);
    char* text = reinterpret_cast<char*>(environment + variables.size() + 1);
    for (size_t i = 0; i < variables.size(); ++i)
        environment[i] = place(variables[i], text);
    m_state->server.program = place(program, text);
    m_state->server.environment = environment;
    m_state->server.stack_top = m_stacks + kStacks;
}

GuardianMemory::~GuardianMemory() {
    if (m_stacks != nullptr && m_owner == getpid()) // in a forked child, the place may be another's
        (void)munmap(m_stacks, kStacks);
    if (m_state != nullptr)
        (void)munmap(m_state, m_shared_size);
}

void* GuardianMemory::stackTop() const {
    return m_stacks + kPage + kGuardianStack;
}

} // namespace vantor::client
