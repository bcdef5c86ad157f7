#include "client/guardian_memory.h"

#include <cstring>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace vantor::client {

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kGuardianStack = 8 * kPage;
constexpr size_t kServerStack = 4 * kPage; // until the program runs
constexpr size_t kStacks = kPage + kGuardianStack + kPage + kServerStack;

size_t countEnvironment() {
    size_t count = 0;
    while (environ != nullptr && environ[count] != nullptr)
        ++count;
    return count;
}

size_t sizeOfTexts(const std::string& program, size_t variables) {
    size_t size = program.size() + 1;
    for (size_t i = 0; i < variables; ++i)
        size += strlen(environ[i]) + 1;
    return size;
}

/// Copies a text with its end, and moves on behind it.
char* place(const char* text, char*& at) {
    char* const copy = at;
    at = stpcpy(at, text) + 1;
    return copy;
}

} // namespace

GuardianMemory::GuardianMemory(const std::string& program) {
    const size_t variables = countEnvironment();
    m_size =
        kStacks + sizeof(GuardianState) + (variables + 1) * sizeof(char*) + sizeOfTexts(program, variables);
    void* const mapping = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return;

    m_mapping = static_cast<char*>(mapping);
    char* const server_guard = m_mapping + kPage + kGuardianStack;
    (void)mprotect(m_mapping, kPage, PROT_NONE); // without guards the stacks are good enough
    (void)mprotect(server_guard, kPage, PROT_NONE);
    (void)madvise(m_mapping, kStacks, MADV_DONTFORK);

    m_stack_top = server_guard;
    m_state = new (m_mapping + kStacks) GuardianState;
    char** const environment = reinterpret_cast<char**>(m_state + 1);
    char* text = reinterpret_cast<char*>(environment + variables + 1);
    for (size_t i = 0; i < variables; ++i)
        environment[i] = place(environ[i], text);
    m_state->server.program = place(program.c_str(), text);
    m_state->server.environment = environment;
    m_state->server.stack_top = m_mapping + kStacks;
}

GuardianMemory::~GuardianMemory() {
    if (isThere())
        (void)munmap(m_mapping, m_size); // it is there
}

} // namespace vantor::client
