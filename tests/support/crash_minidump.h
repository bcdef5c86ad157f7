#pragma once

#include "google_breakpad/common/minidump_format.h"

#include <string>

namespace vantor::test {

/// A minidump of a crash as short as it can be: the streams that a stack trace needs, in Breakpad's order,
/// and behind them one that it can do without. A test changes what it likes before it takes the bytes.
struct CrashMinidump {
    static constexpr uint32_t kStreamCount = 6;
    static constexpr uint32_t kDirectory = sizeof(MDRawHeader);
    static constexpr uint32_t kException = kDirectory + kStreamCount * sizeof(MDRawDirectory);
    static constexpr uint32_t kOthers = kException + sizeof(MDRawExceptionStream);
    static constexpr uint32_t kSize = kOthers + 8;

    MDRawHeader header = {MD_HEADER_SIGNATURE, MD_HEADER_VERSION, kStreamCount, kDirectory, 0, 0, 0};
    MDRawDirectory directory[kStreamCount] = {
        {MD_THREAD_LIST_STREAM, {8, kOthers}},
        {MD_MODULE_LIST_STREAM, {8, kOthers}},
        {MD_MEMORY_LIST_STREAM, {8, kOthers}},
        {MD_EXCEPTION_STREAM, {sizeof(MDRawExceptionStream), kException}},
        {MD_SYSTEM_INFO_STREAM, {8, kOthers}},
        {MD_LINUX_MAPS, {8, kOthers}},
    };
    MDRawExceptionStream exception = {.thread_id = 1234,
                                      .__align = 0,
                                      .exception_record = {.exception_code = 11,
                                                           .exception_flags = 1,
                                                           .exception_record = 0,
                                                           .exception_address = 0xdead0000beef,
                                                           .number_parameters = 0,
                                                           .__align = 0,
                                                           .exception_information = {}},
                                      .thread_context = {}};
    char others[8] = {'s', 't', 'r', 'e', 'a', 'm', 's', '.'};

    std::string bytes() const {
        std::string text(reinterpret_cast<const char*>(&header), sizeof(header));
        text.append(reinterpret_cast<const char*>(directory), sizeof(directory));
        text.append(reinterpret_cast<const char*>(&exception), sizeof(exception));
        return text.append(others, sizeof(others));
    }
};

} // namespace vantor::test
