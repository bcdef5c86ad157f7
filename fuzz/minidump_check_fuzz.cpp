// Of a dump that passes the check, every stream can be read to its last byte.

#include "collector/minidump_check.h"
#include "fuzz/require.h"
#include "google_breakpad/common/minidump_format.h"

#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

using namespace vantor::collector;

namespace {

/// Reads the streams where AddressSanitizer sees it when one is not there.
void readStreams(const uint8_t* data) {
    MDRawHeader header;
    memcpy(&header, data, sizeof(header));
    require(header.stream_count > 0 && header.stream_count <= kMostMinidumpStreams);
    for (uint32_t i = 0; i < header.stream_count; ++i) {
        MDRawDirectory stream;
        memcpy(&stream, data + header.stream_directory_rva + i * sizeof(stream), sizeof(stream));
        const uint8_t* begin = data + stream.location.rva;
        volatile uint8_t byte = 0;
        for (uint32_t offset = 0; offset < stream.location.data_size; ++offset)
            byte = begin[offset];
        (void)byte;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int descriptor = memfd_create("dump", MFD_CLOEXEC);
    require(descriptor != -1 && write(descriptor, data, size) == static_cast<ssize_t>(size));
    const std::optional<Rejection> rejection = checkMinidump(descriptor);
    (void)close(descriptor);
    if (!rejection)
        readStreams(data);
    else
        require(rejection->kind == Rejection::Kind::Bad);
    return 0;
}
