#include "client/alternate_stack.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <pthread.h>
#include <sys/auxv.h>
#include <sys/mman.h>

namespace vantor::client {

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kSize = size_t(64) * 1024; // room for ours, and after it for the application's

/// The kernel's frame of a signal grows with the processor's registers: beyond 8 KB with AVX-512 and AMX.
size_t stackSize() {
    const size_t frame = std::max<size_t>(getauxval(AT_MINSIGSTKSZ), 2048);
    return (kSize + frame + kPage - 1) / kPage * kPage;
}

/// Runs at the thread's end.
void freeStack(void* mapping) {
    stack_t current = {};
    if (sigaltstack(nullptr, &current) == 0 && current.ss_sp == static_cast<char*>(mapping) + kPage) {
        const stack_t none = {nullptr, SS_DISABLE, 0};
        (void)sigaltstack(&none, nullptr);
    }
    (void)munmap(mapping, kPage + stackSize());
}

/// Made once, for the process's life.
struct Key {
    Key() : is_there(pthread_key_create(&key, freeStack) == 0) {}
    pthread_key_t key = 0;
    const bool is_there;
};

} // namespace

bool giveAlternateStack() {
    static const Key key;
    stack_t current = {};
    const size_t size = stackSize();
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0 &&
        current.ss_size >= size / 2)
        return true;

    void* const mapping =
        mmap(nullptr, kPage + size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (!key.is_there || mapping == MAP_FAILED)
        return false;
    char* const bottom = static_cast<char*>(mapping) + kPage;
    const stack_t stack = {bottom, 0, size};
    if (mprotect(bottom, size, PROT_READ | PROT_WRITE) != 0 || pthread_setspecific(key.key, mapping) != 0 ||
        sigaltstack(&stack, nullptr) != 0) {
        (void)pthread_setspecific(key.key, nullptr);
        (void)munmap(mapping, kPage + size);
        return false;
    }
    return true;
}

} // namespace vantor::client
