#include "client/crash_path.h"

#include <new>
#include <sys/mman.h>

namespace vantor::client {

namespace {

constexpr size_t kPage = 4096;

constexpr size_t roundUp(size_t size) {
    return (size + kPage - 1) / kPage * kPage;
}

// The companion keeps a few paths there; Breakpad gives the writer of a minidump 16 KB.
constexpr size_t kCompanionStack = 16 * kPage;
constexpr size_t kWriterStack = 32 * kPage;

constexpr size_t kCompanionStackTop = kPage + kCompanionStack;
constexpr size_t kWriterStackTop = kCompanionStackTop + kPage + kWriterStack;
constexpr size_t kSize = kWriterStackTop + roundUp(sizeof(CrashPath));

} // namespace

CrashPath* mapCrashPath() {
    void* const mapping = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;

    char* const memory = static_cast<char*>(mapping);
    if (mprotect(memory, kPage, PROT_NONE) != 0 ||
        mprotect(memory + kCompanionStackTop, kPage, PROT_NONE) != 0) {
        (void)munmap(mapping, kSize);
        return nullptr;
    }
    auto* const path = new (memory + kWriterStackTop) CrashPath{};
    path->companion_stack_top = memory + kCompanionStackTop;
    path->writer_stack_top = memory + kWriterStackTop;
    return path;
}

void unmapCrashPath(CrashPath* path) {
    (void)munmap(reinterpret_cast<char*>(path) - kWriterStackTop, kSize);
}

} // namespace vantor::client
