// How Breakpad's dumper reads a client's memory: in place of the function of the same name in its library,
// which asks for every word by a system call of its own. The bytes are the same.

#include "client/linux/minidump_writer/linux_ptrace_dumper.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/ptrace.h>
#include <unistd.h>

namespace {

constexpr size_t kWordSize = sizeof(long);

/// Up to here words cost less than a file that is opened, read and closed.
constexpr size_t kSmallLength = 4 * kWordSize;

/// 0 where there is no memory, or where `thread` is not one that the calling thread has stopped.
long wordAt(pid_t thread, uintptr_t address, bool* is_read) {
    errno = 0;
    const long word = ptrace(PTRACE_PEEKDATA, thread, reinterpret_cast<void*>(address), nullptr);
    *is_read = errno == 0;
    return *is_read ? word : 0;
}

/// Reads up to the first byte that cannot be read, and returns how many bytes came: none when it is refused.
/// Memory without permissions can be read like any other.
size_t readAtOnce(pid_t thread, uintptr_t address, void* to, size_t length) {
    const std::string path = "/proc/" + std::to_string(thread) + "/mem";
    const int memory = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (memory == -1)
        return 0;
    const ssize_t count = pread(memory, to, length, static_cast<off_t>(address));
    (void)close(memory);
    return count > 0 ? static_cast<size_t>(count) : 0;
}

} // namespace

namespace google_breakpad {

// A first word that can be read shows that the thread is stopped and traced by us: until we let it go, nobody
// else gets its number. What the file does not give is asked for in words. Half a word is never kept: one
// that ends in memory that is not there reads as 0.
bool LinuxPtraceDumper::CopyFromProcess(void* dest, pid_t child, const void* src, size_t length) {
    char* const to = static_cast<char*>(dest);
    const auto from = reinterpret_cast<uintptr_t>(src);

    for (size_t done = 0; done < length;) {
        bool is_read = false;
        const long word = wordAt(child, from + done, &is_read);
        const size_t size = std::min(kWordSize, length - done);
        std::memcpy(to + done, &word, size);
        const bool is_first = done == 0;
        done += size;

        if (is_first && is_read && length > kSmallLength) {
            const size_t whole_words = (length - done) / kWordSize * kWordSize;
            done += readAtOnce(child, from + done, to + done, whole_words) / kWordSize * kWordSize;
        }
    }
    return true;
}

} // namespace google_breakpad
