#include "tests/support/end_of_memory.h"

#include <algorithm>
#include <cstdio>
#include <sys/mman.h>
#include <unistd.h>

namespace vantor::test {

uint64_t placeAtEndOfMemory(const std::string& bytes) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t length = (bytes.size() + page - 1) / page * page;

    // Far from where the system puts mappings by itself, so that nothing comes to lie behind it.
    static uintptr_t place = uintptr_t(1) << 40;
    place += uintptr_t(1) << 32;
    void* memory = mmap(reinterpret_cast<void*>(place), length, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (memory == MAP_FAILED) {
        perror("memory");
        _exit(1);
    }

    char* first = static_cast<char*>(memory) + length - bytes.size();
    std::copy(bytes.begin(), bytes.end(), first);
    return reinterpret_cast<uint64_t>(first);
}

} // namespace vantor::test
