// How Breakpad's dumper reads a client's memory: in place of the function of the same name in its library,
// which asks for every word by a system call of its own. The bytes are the same.

#include "crash/dump_in_progress.h"

#include "client/linux/minidump_writer/linux_ptrace_dumper.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr size_t kWordSize = sizeof(long);

/// Up to here words cost less than a file that is opened, read and closed.
constexpr size_t kSmallLength = 4 * kWordSize;

size_t inWholeWords(ssize_t length) {
    return length > 0 ? static_cast<size_t>(length) / kWordSize * kWordSize : 0;
}

/// 0 where there is no memory, or where `thread` is not one that the calling thread has stopped.
long wordAt(pid_t thread, uintptr_t address, bool* is_read) {
    errno = 0;
    const long word = ptrace(PTRACE_PEEKDATA, thread, reinterpret_cast<void*>(address), nullptr);
    *is_read = errno == 0;
    return *is_read ? word : 0;
}

// These read whole words up to the first byte that cannot be read, and return how many bytes came: none when
// it is refused.

/// Not what has no permissions, nor the memory of devices.
size_t readByCall(pid_t thread, uintptr_t address, char* to, size_t length) {
    const iovec here = {.iov_base = to, .iov_len = length};
    const iovec there = {.iov_base = reinterpret_cast<void*>(address), .iov_len = length};
    return inWholeWords(process_vm_readv(thread, &here, 1, &there, 1, 0));
}

/// All that there is.
size_t readFromFile(pid_t thread, uintptr_t address, char* to, size_t length) {
    const std::string path = "/proc/" + std::to_string(thread) + "/mem";
    const int memory = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (memory == -1)
        return 0;
    const ssize_t count = pread(memory, to, length, static_cast<off_t>(address));
    (void)close(memory);
    return inWholeWords(count);
}

size_t readAtOnce(pid_t thread, uintptr_t address, char* to, size_t length) {
    const size_t done = readByCall(thread, address, to, length);
    if (length - done <= kSmallLength)
        return done;
    return done + readFromFile(thread, address + done, to + done, length - done);
}

} // namespace

namespace google_breakpad {

// A word that can be read shows that the thread is stopped and traced by us: until we let it go, at the end
// of the dump, nobody else gets its number. What cannot be read at once is asked for in words. Half a word is
// never kept: one that ends in memory that is not there reads as 0.
bool LinuxPtraceDumper::CopyFromProcess(void* dest, pid_t child, const void* src, size_t length) {
    char* const to = static_cast<char*>(dest);
    const auto from = reinterpret_cast<uintptr_t>(src);
    vantor::crash::DumpInProgress* const dump = vantor::crash::DumpInProgress::current();
    bool is_stopped = dump != nullptr && dump->stopped_thread == child;

    size_t done = is_stopped ? readAtOnce(child, from, to, inWholeWords(static_cast<ssize_t>(length))) : 0;
    while (done < length) {
        bool is_read = false;
        const long word = wordAt(child, from + done, &is_read);
        const size_t size = std::min(kWordSize, length - done);
        std::memcpy(to + done, &word, size);
        done += size;

        if (is_read && !is_stopped) {
            is_stopped = true;
            if (dump != nullptr)
                dump->stopped_thread = child;
            if (done == kWordSize)
                done += readAtOnce(child, from + done, to + done,
                                   inWholeWords(static_cast<ssize_t>(length - done)));
        }
    }
    return true;
}

} // namespace google_breakpad
