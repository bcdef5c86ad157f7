// Stands still in a pose, until it is killed: threads at all depths, some of them with memory in their stacks
// that has lost its permissions, and libraries. Says where a crash may be said to be: STACK_POINTER
// INSTRUCTION_POINTER, in hexadecimal digits.
//
//     posed_process STACK THREADS [LIBRARY...]

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <map>
#include <semaphore>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace vantor::test {

namespace {

constexpr size_t kPage = 4096;

void require(bool is_done, const char* what) {
    if (is_done)
        return;
    perror(what);
    _exit(1);
}

char* map(int file) {
    void* const memory = mmap(nullptr, 4 * kPage, PROT_READ | PROT_WRITE,
                              file == -1 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED, file, 0);
    require(memory != MAP_FAILED, "mmap");
    return static_cast<char*>(memory);
}

/// A stack of which nothing is left but the page that guards it, which holds something all the same.
uintptr_t fullStack() {
    char* const memory = map(-1);
    std::memset(memory, 'g', kPage);
    require(mprotect(memory, kPage, PROT_NONE) == 0, "mprotect");
    return reinterpret_cast<uintptr_t>(memory) + kPage - 16;
}

/// A stack whose second half is not there: the end of the file that it is mapped from.
uintptr_t brokenStack() {
    const int file = memfd_create("stack", MFD_CLOEXEC);
    require(ftruncate(file, 2 * kPage) == 0, "ftruncate");
    char* const memory = map(file);
    std::memset(memory, 'b', 2 * kPage);
    return reinterpret_cast<uintptr_t>(memory) + 16;
}

uintptr_t ownStack() {
    return reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
}

uintptr_t noStack() {
    return 0;
}

std::counting_semaphore<> g_posed(0);

[[gnu::noinline]] void standAt(int depth) {
    alignas(kPage) volatile char page[kPage];
    page[0] = 's';
    page[kPage - 1] = static_cast<char>(depth);
    if (depth % 3 == 2)
        require(mprotect(const_cast<char*>(page), kPage, PROT_NONE) == 0, "mprotect");
    if (depth > 0) {
        standAt(depth - 1);
        return;
    }
    g_posed.release();
    while (page[0] == 's')
        (void)pause();
}

} // namespace

} // namespace vantor::test

int main(int argc, char** argv) {
    using namespace vantor::test;
    const std::map<std::string, uintptr_t (*)()> stacks = {
        {"own", ownStack}, {"full", fullStack}, {"broken", brokenStack}, {"none", noStack}};
    if (argc < 3)
        return 2;

    for (int i = 3; i < argc; ++i)
        require(dlopen(argv[i], RTLD_NOW) != nullptr, argv[i]);
    const int threads = atoi(argv[2]);
    for (int i = 0; i < threads; ++i)
        std::thread(standAt, i % 12).detach();
    for (int i = 0; i < threads; ++i)
        g_posed.acquire();
    (void)printf("%lx %lx\n", stacks.at(argv[1])(), reinterpret_cast<uintptr_t>(&standAt));
    (void)fflush(stdout);
    while (true)
        (void)pause();
}
