#include "client/minidump_file.h"

#include "client/raw_system_calls.h"
#include "google_breakpad/common/minidump_format.h"

#include <sys/stat.h>

namespace vantor::client {

namespace {

constexpr uint32_t kMostStreams = 128; // Breakpad writes 13

// Streams that a stack trace needs, as bits.
constexpr uint32_t kThreads = 1;
constexpr uint32_t kModules = 2;
constexpr uint32_t kMemory = 4;
constexpr uint32_t kException = 8;
constexpr uint32_t kSystem = 16;
constexpr uint32_t kNeeded = kThreads | kModules | kMemory | kException | kSystem;

uint32_t bitOf(uint32_t stream_type) {
    switch (stream_type) {
    case MD_THREAD_LIST_STREAM:
        return kThreads;
    case MD_MODULE_LIST_STREAM:
        return kModules;
    case MD_MEMORY_LIST_STREAM:
        return kMemory;
    case MD_EXCEPTION_STREAM:
        return kException;
    case MD_SYSTEM_INFO_STREAM:
        return kSystem;
    default:
        return 0;
    }
}

/// A regular file gives all that it has at once.
bool readAt(int descriptor, uint32_t offset, void* out, uint32_t size) {
    return rawSystemCall(SYS_pread64, descriptor, asWord(out), size, offset) == size;
}

/// The numbers are 32 bits wide, so that the sum cannot overflow.
bool liesWithin(uint64_t file_size, uint32_t offset, uint32_t size) {
    return uint64_t(offset) + size <= file_size;
}

bool isMinidump(const MDRawHeader& header) {
    constexpr uint32_t kVersionMask = 0xffff; // the other bits are the writer's own
    return header.signature == MD_HEADER_SIGNATURE && (header.version & kVersionMask) == MD_HEADER_VERSION &&
           header.stream_count <= kMostStreams;
}

/// Where the exception's stream is; null unless every stream that is needed is there, and none ends behind
/// the file.
const MDLocationDescriptor* exceptionIn(const MDRawDirectory* directory, uint32_t count, uint64_t file_size) {
    uint32_t found = 0;
    const MDLocationDescriptor* exception = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        const MDLocationDescriptor& location = directory[i].location;
        const uint32_t bit = bitOf(directory[i].stream_type);
        if (!liesWithin(file_size, location.rva, location.data_size) || (bit != 0 && location.data_size == 0))
            return nullptr;
        found |= bit;
        if (bit == kException)
            exception = &location;
    }
    return found == kNeeded ? exception : nullptr;
}

} // namespace

MinidumpState readMinidump(int descriptor, MinidumpCrash* crash) {
    struct stat status;
    if (rawSystemCall(SYS_fstat, descriptor, asWord(&status)) != 0 || !S_ISREG(status.st_mode))
        return MinidumpState::Unreadable;

    const auto file_size = static_cast<uint64_t>(status.st_size);
    MDRawHeader header;
    if (file_size < sizeof(header))
        return MinidumpState::Broken;
    if (!readAt(descriptor, 0, &header, sizeof(header)))
        return MinidumpState::Unreadable;
    if (!isMinidump(header))
        return MinidumpState::Broken;

    MDRawDirectory directory[kMostStreams];
    const auto directory_size = static_cast<uint32_t>(header.stream_count * sizeof(directory[0]));
    if (!liesWithin(file_size, header.stream_directory_rva, directory_size))
        return MinidumpState::Broken;
    if (!readAt(descriptor, header.stream_directory_rva, directory, directory_size))
        return MinidumpState::Unreadable;

    const MDLocationDescriptor* const location = exceptionIn(directory, header.stream_count, file_size);
    MDRawExceptionStream exception;
    if (location == nullptr || location->data_size < sizeof(exception))
        return MinidumpState::Broken;
    if (!readAt(descriptor, location->rva, &exception, sizeof(exception)))
        return MinidumpState::Unreadable;

    *crash = {exception.thread_id, exception.exception_record.exception_code,
              exception.exception_record.exception_address};
    return MinidumpState::Whole;
}

} // namespace vantor::client
