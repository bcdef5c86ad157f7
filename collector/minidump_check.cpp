#include "collector/minidump_check.h"

#include "google_breakpad/common/minidump_format.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace vantor::collector {

namespace {

/// Reads all of `size` bytes at `offset`.
bool readAt(int descriptor, uint64_t offset, void* out, size_t size) {
    char* to = static_cast<char*>(out);
    while (size > 0) {
        const ssize_t piece = pread(descriptor, to, size, static_cast<off_t>(offset));
        if (piece == -1 && errno == EINTR)
            continue;
        if (piece <= 0)
            return false;
        to += piece;
        offset += static_cast<uint64_t>(piece);
        size -= static_cast<size_t>(piece);
    }
    return true;
}

/// Both numbers are 32 bits wide where they come from, so that the sum cannot overflow.
bool liesWithin(uint64_t file_size, uint32_t offset, uint64_t size) {
    return offset + size <= file_size;
}

const Rejection kUnreadable = {Rejection::Kind::NoStorage, "The dump cannot be read back."};

} // namespace

std::optional<Rejection> checkMinidump(int descriptor) {
    struct stat status = {};
    if (fstat(descriptor, &status) != 0)
        return kUnreadable;

    const auto file_size = static_cast<uint64_t>(status.st_size);
    MDRawHeader header = {};
    if (file_size < sizeof(header))
        return bad("The dump is too short for a minidump.");
    if (!readAt(descriptor, 0, &header, sizeof(header)))
        return kUnreadable;

    constexpr uint32_t kVersionMask = 0xffff; // the other bits are the writer's own
    if (header.signature != MD_HEADER_SIGNATURE)
        return bad("The dump does not begin as a minidump does.");
    if ((header.version & kVersionMask) != MD_HEADER_VERSION)
        return bad("The dump is a minidump of an unknown version.");
    if (header.stream_count == 0)
        return bad("The dump has no streams.");
    if (header.stream_count > kMostMinidumpStreams)
        return bad("The dump has more than " + std::to_string(kMostMinidumpStreams) + " streams.");

    std::vector<MDRawDirectory> directory(header.stream_count);
    const size_t directory_size = directory.size() * sizeof(directory[0]);
    if (!liesWithin(file_size, header.stream_directory_rva, directory_size))
        return bad("The dump ends before its directory of streams does.");
    if (!readAt(descriptor, header.stream_directory_rva, directory.data(), directory_size))
        return kUnreadable;

    for (const MDRawDirectory& stream : directory)
        if (!liesWithin(file_size, stream.location.rva, stream.location.data_size))
            return bad("The dump ends before one of its streams does.");
    return std::nullopt;
}

} // namespace vantor::collector
