#include "collector/minidump_check.h"

#include "tests/support/descriptor.h"
#include "tests/support/printed_rejection.h"
#include "tests/support/small_minidump.h"
#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

namespace vantor::collector {
namespace {

using test::SmallMinidump;

class MinidumpCheckTest : public testing::Test {
protected:
    std::optional<Rejection> check(const std::string& bytes, int flags = O_RDONLY) {
        test::writeFile(m_directory / "dump", bytes);
        const test::Descriptor file(open((m_directory / "dump").c_str(), flags | O_CLOEXEC));
        std::optional<Rejection> rejection = checkMinidump(file.get());
        EXPECT_EQ(lseek(file.get(), 0, SEEK_CUR), 0);
        return rejection;
    }

private:
    test::TemporaryDirectory m_directory;
};

TEST_F(MinidumpCheckTest, AWholeMinidumpIsWithoutFault) {
    EXPECT_EQ(check(SmallMinidump().bytes()), std::nullopt);
    EXPECT_EQ(check(SmallMinidump().bytes() + "more than any stream holds"), std::nullopt);
}

TEST_F(MinidumpCheckTest, CutAnywhereItIsNone) {
    const std::string whole = SmallMinidump().bytes();
    for (size_t size = 0; size < whole.size(); ++size) {
        const std::string fault = size < sizeof(MDRawHeader) ? "The dump is too short for a minidump."
                                  : size < SmallMinidump::kStreams
                                      ? "The dump ends before its directory of streams does."
                                      : "The dump ends before one of its streams does.";
        EXPECT_EQ(check(whole.substr(0, size)), bad(fault)) << size;
    }
}

TEST_F(MinidumpCheckTest, EachFieldOfTheHeaderAndTheDirectoryCounts) {
    constexpr uint32_t kDirectory = sizeof(MDRawHeader);
    constexpr uint32_t kSize = SmallMinidump::kSize;
    const std::string other = "The dump does not begin as a minidump does.";
    const std::string version = "The dump is a minidump of an unknown version.";
    const std::string too_many = "The dump has more than 128 streams.";
    const std::string directory = "The dump ends before its directory of streams does.";
    const std::string stream = "The dump ends before one of its streams does.";
    const struct {
        const char* what;
        std::function<void(SmallMinidump&)> change;
        std::string fault; // "": none
    } cases[] = {
        {"signature", [](auto& dump) { dump.header.signature ^= 1; }, other},
        {"other byte order", [](auto& dump) { dump.header.signature = 0x4d444d50; }, other},
        {"version", [](auto& dump) { dump.header.version ^= 1; }, version},
        {"no version", [](auto& dump) { dump.header.version = 0; }, version},
        {"implementation's version", [](auto& dump) { dump.header.version |= 0xabcd0000; }, ""},
        {"no streams", [](auto& dump) { dump.header.stream_count = 0; }, "The dump has no streams."},
        {"fewer streams", [](auto& dump) { dump.header.stream_count = 1; }, ""},
        {"most streams", [](auto& dump) { dump.header.stream_count = 128; }, directory},
        {"too many streams", [](auto& dump) { dump.header.stream_count = 129; }, too_many},
        {"endless streams", [](auto& dump) { dump.header.stream_count = UINT32_MAX; }, too_many},
        {"directory to the end",
         [](auto& dump) { dump.header.stream_directory_rva = kSize - sizeof(dump.directory); }, stream},
        {"directory over the end",
         [](auto& dump) { dump.header.stream_directory_rva = kSize - sizeof(dump.directory) + 1; },
         directory},
        {"directory behind the end", [](auto& dump) { dump.header.stream_directory_rva = UINT32_MAX; },
         directory},
        {"checksum", [](auto& dump) { dump.header.checksum = UINT32_MAX; }, ""},
        {"time", [](auto& dump) { dump.header.time_date_stamp = UINT32_MAX; }, ""},
        {"flags", [](auto& dump) { dump.header.flags = UINT64_MAX; }, ""},
        {"stream's type", [](auto& dump) { dump.directory[0].stream_type = 0; }, ""},
        {"streams that overlap",
         [](auto& dump) {
             dump.directory[1].location = {kSize, 0};
         },
         ""},
        {"empty stream at the end",
         [](auto& dump) {
             dump.directory[1].location = {0, kSize};
         },
         ""},
        {"empty stream behind the end",
         [](auto& dump) {
             dump.directory[1].location = {0, kSize + 1};
         },
         stream},
        {"stream too long", [](auto& dump) { ++dump.directory[1].location.data_size; }, stream},
        {"stream too late", [](auto& dump) { ++dump.directory[1].location.rva; }, stream},
        {"endless stream",
         [](auto& dump) {
             dump.directory[0].location = {UINT32_MAX, kDirectory};
         },
         stream},
        {"endless both",
         [](auto& dump) {
             dump.directory[0].location = {UINT32_MAX, UINT32_MAX};
         },
         stream},
    };
    for (const auto& each : cases) {
        SmallMinidump dump;
        each.change(dump);
        const std::optional<Rejection> rejection = check(dump.bytes());
        EXPECT_EQ(rejection ? rejection->reason : "", each.fault) << each.what;
        EXPECT_TRUE(!rejection || rejection->kind == Rejection::Kind::Bad) << each.what;
    }
}

TEST_F(MinidumpCheckTest, AsManyStreamsAsBreakpadReadsAreTaken) {
    SmallMinidump dump;
    dump.header.stream_count = kMostMinidumpStreams;
    const std::string zeros(kMostMinidumpStreams * sizeof(MDRawDirectory), '\0');
    EXPECT_EQ(check(dump.bytes() + zeros), bad("The dump ends before one of its streams does."));
    dump.header.stream_directory_rva = SmallMinidump::kSize;
    EXPECT_EQ(check(dump.bytes() + zeros), std::nullopt);
}

TEST_F(MinidumpCheckTest, WhatCannotBeReadIsNoFaultOfTheSender) {
    const Rejection unreadable = {Rejection::Kind::NoStorage, "The dump cannot be read back."};
    EXPECT_EQ(check(SmallMinidump().bytes(), O_WRONLY), unreadable);
    EXPECT_EQ(checkMinidump(-1), unreadable);
}

} // namespace
} // namespace vantor::collector
