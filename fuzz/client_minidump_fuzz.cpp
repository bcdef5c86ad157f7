// A file in the crash directory that is called a dump, as the client library finds it at its start: whatever
// it holds, it is read within its bounds, and one that is whole is not whole any more without its last
// stream's end.

#include "client/minidump_file.h"
#include "fuzz/require.h"

#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

using namespace vantor::client;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int file = memfd_create("dump", MFD_CLOEXEC);
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));

    MinidumpCrash crash = {};
    const MinidumpState state = readMinidump(file, &crash);
    MinidumpCrash again = {};
    require(readMinidump(file, &again) == state && again.signal == crash.signal);
    constexpr off_t kHeaderBytes = 32;
    if (state == MinidumpState::Whole) {
        require(ftruncate(file, kHeaderBytes) == 0);
        require(readMinidump(file, &again) != MinidumpState::Whole);
    }
    return 0;
}
