#include "client/minidump_file.h"

#include "tests/support/crash_minidump.h"
#include "tests/support/descriptor.h"
#include "tests/support/real_dump.h"
#include "tests/support/temporary_directory.h"

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vantor::client {

namespace {

using test::CrashMinidump;
using test::Descriptor;

constexpr MinidumpState kWhole = MinidumpState::Whole;
constexpr MinidumpState kBroken = MinidumpState::Broken;
constexpr MinidumpState kUnreadable = MinidumpState::Unreadable;

class MinidumpFileTest : public testing::Test {
protected:
    MinidumpState read(const std::string& bytes, int flags = O_RDONLY) {
        test::writeFile(m_directory / "dump", bytes);
        const Descriptor file(open((m_directory / "dump").c_str(), flags | O_CLOEXEC));
        const MinidumpState state = readMinidump(file.get(), &m_crash);
        EXPECT_EQ(0, lseek(file.get(), 0, SEEK_CUR));
        return state;
    }

    test::TemporaryDirectory m_directory;
    MinidumpCrash m_crash;
};

TEST_F(MinidumpFileTest, TellsTheCrashOfAWholeOne) {
    EXPECT_EQ(kWhole, read(CrashMinidump().bytes()));
    EXPECT_EQ(1234U, m_crash.thread);
    EXPECT_EQ(11U, m_crash.signal);
    EXPECT_EQ(0xdead0000beefU, m_crash.address);
    EXPECT_EQ(kWhole, read(CrashMinidump().bytes() + "a writer grows its file in advance"));
}

TEST_F(MinidumpFileTest, TellsTheCrashOfBreakpads) {
    const test::RealDump dump = test::makeRealDump(m_directory.path());
    EXPECT_EQ(kWhole, read(test::readFile(dump.path)));
    EXPECT_EQ(11U, m_crash.signal);
    EXPECT_EQ(0U, m_crash.address);
    EXPECT_LT(1U, m_crash.thread);
}

TEST_F(MinidumpFileTest, CutAnywhereItIsBroken) {
    const std::string whole = CrashMinidump().bytes();
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_EQ(kBroken, read(whole.substr(0, size))) << size;
}

/// So it looks when its writer was killed: zeros follow what was entered.
TEST_F(MinidumpFileTest, OneOfBreakpadsThatWasGivenUpIsBroken) {
    const std::string whole = test::readFile(test::makeRealDump(m_directory.path()).path);
    MDRawHeader header;
    memcpy(&header, whole.data(), sizeof(header));
    ASSERT_EQ(13U, header.stream_count);

    for (uint32_t entered = 0; entered <= header.stream_count; ++entered) {
        std::string unfinished = whole;
        const size_t begin = header.stream_directory_rva + entered * sizeof(MDRawDirectory);
        const size_t length = (header.stream_count - entered) * sizeof(MDRawDirectory);
        unfinished.replace(begin, length, length, '\0');
        EXPECT_EQ(entered < 5 ? kBroken : kWhole, read(unfinished)) << entered;
    }
}

TEST_F(MinidumpFileTest, EachFieldCounts) {
    constexpr uint32_t kSize = CrashMinidump::kSize;
    const struct {
        const char* what;
        std::function<void(CrashMinidump&)> change;
        MinidumpState expected;
    } cases[] = {
        {"signature", [](auto& dump) { dump.header.signature ^= 1; }, kBroken},
        {"version", [](auto& dump) { dump.header.version ^= 1; }, kBroken},
        {"implementation's version", [](auto& dump) { dump.header.version |= 0xabcd0000; }, kWhole},
        {"no streams", [](auto& dump) { dump.header.stream_count = 0; }, kBroken},
        {"one stream less", [](auto& dump) { dump.header.stream_count = 5; }, kWhole},
        {"two streams less", [](auto& dump) { dump.header.stream_count = 4; }, kBroken},
        {"endless streams", [](auto& dump) { dump.header.stream_count = UINT32_MAX; }, kBroken},
        {"directory behind the end", [](auto& dump) { dump.header.stream_directory_rva = kSize; }, kBroken},
        {"directory far away", [](auto& dump) { dump.header.stream_directory_rva = UINT32_MAX; }, kBroken},
        {"stream up to the end",
         [](auto& dump) {
             dump.directory[5].location = {1, kSize - 1};
         },
         kWhole},
        {"stream over the end",
         [](auto& dump) {
             dump.directory[5].location = {2, kSize - 1};
         },
         kBroken},
        {"stream far away",
         [](auto& dump) {
             dump.directory[5].location = {UINT32_MAX, UINT32_MAX};
         },
         kBroken},
        {"last stream unused", [](auto& dump) { dump.directory[5] = {}; }, kWhole},
        {"no threads", [](auto& dump) { dump.directory[0] = {}; }, kBroken},
        {"no modules", [](auto& dump) { dump.directory[1] = {}; }, kBroken},
        {"no memory", [](auto& dump) { dump.directory[2] = {}; }, kBroken},
        {"no exception", [](auto& dump) { dump.directory[3] = {}; }, kBroken},
        {"no system", [](auto& dump) { dump.directory[4] = {}; }, kBroken},
        {"empty threads", [](auto& dump) { dump.directory[0].location.data_size = 0; }, kBroken},
        {"short exception", [](auto& dump) { --dump.directory[3].location.data_size; }, kBroken},
    };
    for (const auto& each : cases) {
        CrashMinidump dump;
        each.change(dump);
        EXPECT_EQ(each.expected, read(dump.bytes())) << each.what;
    }
}

TEST_F(MinidumpFileTest, HasAtMost128Streams) {
    for (const uint32_t count : {128U, 129U}) {
        CrashMinidump dump;
        dump.header.stream_count = count;
        dump.header.stream_directory_rva = CrashMinidump::kSize;
        std::string bytes = dump.bytes();
        bytes.append(reinterpret_cast<const char*>(dump.directory), sizeof(dump.directory));
        bytes.append((count - CrashMinidump::kStreamCount) * sizeof(MDRawDirectory), '\0');
        EXPECT_EQ(count == 128 ? kWhole : kBroken, read(bytes)) << count;
    }
}

TEST_F(MinidumpFileTest, NothingIsSaidOfWhatCannotBeRead) {
    EXPECT_EQ(kUnreadable, readMinidump(-1, &m_crash));
    EXPECT_EQ(kUnreadable, read(CrashMinidump().bytes(), O_WRONLY));
    const Descriptor directory(open(m_directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(kUnreadable, readMinidump(directory.get(), &m_crash));
    const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(kUnreadable, readMinidump(socket.get(), &m_crash));
}

} // namespace

} // namespace vantor::client
