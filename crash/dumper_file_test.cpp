// The bytes of a dump, collected and written: the file is always what pieces written one by one would make
// it.

#include "crash/dump_in_progress.h"

#include "client/minidump_file_writer-inl.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace vantor::crash {

namespace {

constexpr size_t kBlock = DumpFile::kBlockSize;

/// A file in memory.
class MemoryFile {
public:
    MemoryFile() : m_descriptor(memfd_create("dump", MFD_CLOEXEC | MFD_ALLOW_SEALING)) {}
    ~MemoryFile() { close(m_descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int descriptor() const { return m_descriptor; }
    std::string path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }
    std::string content() const {
        std::string bytes(static_cast<size_t>(lseek(m_descriptor, 0, SEEK_END)), '\0');
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), pread(m_descriptor, bytes.data(), bytes.size(), 0));
        return bytes;
    }
    /// Like a disk that is full from here on.
    void allowNoMoreThan(size_t size) const {
        ASSERT_EQ(0, ftruncate(m_descriptor, static_cast<off_t>(size)));
        ASSERT_EQ(0, fcntl(m_descriptor, F_ADD_SEALS, F_SEAL_GROW));
    }

private:
    int m_descriptor;
};

class DumpFileTest : public testing::Test {
protected:
    /// The same in the file and in what it should become.
    bool copy(size_t position, const std::string& bytes) {
        m_expected.resize(std::max(m_expected.size(), position + bytes.size()), '\0');
        m_expected.replace(position, bytes.size(), bytes);
        return m_dump.copy(m_file.descriptor(), position, bytes.data(), bytes.size());
    }
    bool flush() { return m_dump.flush(m_file.descriptor()); }

    void expectFile() {
        EXPECT_TRUE(flush());
        EXPECT_TRUE(m_dump.isGood());
        EXPECT_TRUE(m_expected == m_file.content());
    }

    MemoryFile m_file;
    DumpFile m_dump;
    std::string m_expected;
};

TEST_F(DumpFileTest, NothingIsWrittenBeforeTheFlush) {
    EXPECT_TRUE(copy(0, "dump"));
    EXPECT_EQ("", m_file.content());
    EXPECT_TRUE(flush());
    EXPECT_EQ("dump", m_file.content());
    EXPECT_TRUE(flush());
    EXPECT_EQ("dump", m_file.content());
}

TEST_F(DumpFileTest, LettersMakeAFile) {
    for (size_t i = 0; i < 2 * kBlock + 3; ++i)
        ASSERT_TRUE(copy(i, std::string(1, static_cast<char>(i % 251))));
    expectFile();
}

TEST_F(DumpFileTest, APieceMayBeLongerThanABlock) {
    EXPECT_TRUE(copy(10, std::string(3 * kBlock, 'x')));
    EXPECT_TRUE(copy(3 * kBlock + 10, "y"));
    expectFile();
}

TEST_F(DumpFileTest, WhatWasNeverCopiedIsZeros) {
    EXPECT_TRUE(copy(5, "a"));
    EXPECT_TRUE(copy(3, "b"));
    EXPECT_TRUE(copy(100, "c"));
    EXPECT_TRUE(copy(50, "d"));
    EXPECT_TRUE(
        copy(kBlock + 100, std::string(kBlock - 100, 'e'))); // a full block, and the next begins again
    EXPECT_TRUE(copy(2 * kBlock + 20, "f"));
    EXPECT_TRUE(copy(5 * kBlock + 7, "g"));
    expectFile();
}

TEST_F(DumpFileTest, AGapAtTheEndOfABlockEndsThere) {
    EXPECT_TRUE(copy(0, std::string(kBlock - 10, 'x')));
    EXPECT_TRUE(copy(kBlock - 5, "y"));
    expectFile();
}

TEST_F(DumpFileTest, EarlierBlocksAreFilledIn) {
    EXPECT_TRUE(copy(2 * kBlock, std::string(100, 'x')));
    EXPECT_TRUE(copy(8, "row"));
    EXPECT_TRUE(copy(kBlock - 1, "over the edge"));
    EXPECT_TRUE(copy(2 * kBlock - 4, "into this one"));
    expectFile();
}

TEST_F(DumpFileTest, AfterAFlushItGoesOn) {
    EXPECT_TRUE(copy(0, "one"));
    EXPECT_TRUE(flush());
    EXPECT_TRUE(copy(10, "two"));
    EXPECT_TRUE(copy(1, "N"));
    expectFile();
}

TEST_F(DumpFileTest, AFullDiskShowsWhenABlockIsWritten) {
    m_file.allowNoMoreThan(kBlock);
    EXPECT_TRUE(copy(0, std::string(kBlock, 'x')));
    EXPECT_TRUE(copy(kBlock, "y"));
    EXPECT_TRUE(m_dump.isGood());
    EXPECT_FALSE(flush());
    EXPECT_FALSE(m_dump.isGood());
    EXPECT_EQ(std::string(kBlock, 'x'), m_file.content());
}

TEST_F(DumpFileTest, AfterAFailureNothingSucceeds) {
    m_file.allowNoMoreThan(100);
    EXPECT_FALSE(copy(0, std::string(2 * kBlock, 'x')));
    EXPECT_FALSE(copy(0, "y"));
    EXPECT_FALSE(flush());
    EXPECT_FALSE(m_dump.isGood());
    EXPECT_NE('y', m_file.content()[0]);
}

/// Breakpad's writer, with our functions in it.
class FileWriterTest : public testing::Test {
protected:
    static void writeString(google_breakpad::MinidumpFileWriter& writer) {
        MDLocationDescriptor place = {};
        EXPECT_TRUE(writer.WriteString("name", 0, &place));
        EXPECT_EQ(0U, place.rva);
    }

    const std::string m_string = std::string("\x8\0\0\0n\0a\0m\0e\0\0\0", 14) + std::string(2, '\0');
    MemoryFile m_file;
};

TEST_F(FileWriterTest, InADumpTheFileGrowsBeforeItHasBytes) {
    DumpInProgress dump;
    google_breakpad::MinidumpFileWriter writer;
    writer.SetFile(m_file.descriptor());
    writeString(writer);
    EXPECT_EQ(std::string(4096, '\0'), m_file.content());
    EXPECT_TRUE(dump.file.flush(m_file.descriptor()));
    EXPECT_EQ(m_string, m_file.content().substr(0, 16));
}

TEST_F(FileWriterTest, OutsideOfADumpBytesGoToTheFileAtOnce) {
    google_breakpad::MinidumpFileWriter writer;
    writer.SetFile(m_file.descriptor());
    writeString(writer);
    EXPECT_EQ(m_string + std::string(4096 - 16, '\0'), m_file.content());
}

TEST_F(FileWriterTest, NothingIsCopiedBehindWhatWasAllocated) {
    const DumpInProgress dump;
    google_breakpad::MinidumpFileWriter writer;
    writer.SetFile(m_file.descriptor());
    writeString(writer);
    EXPECT_TRUE(writer.Copy(4095, "x", 1));
    EXPECT_FALSE(writer.Copy(4096, "x", 1));
    EXPECT_FALSE(writer.Copy(4095, "xy", 2));
    EXPECT_TRUE(dump.file.isGood());
}

TEST_F(FileWriterTest, CloseWritesAndCutsOffWhatIsNotUsed) {
    const test::TemporaryDirectory directory;
    const std::string path = directory / "dump";
    for (const bool is_dump : {false, true}) {
        std::optional<DumpInProgress> dump;
        if (is_dump)
            dump.emplace();
        google_breakpad::MinidumpFileWriter writer;
        ASSERT_TRUE(writer.Open(path.c_str()));
        EXPECT_FALSE(google_breakpad::MinidumpFileWriter().Open(path.c_str())); // it is there
        writeString(writer);
        EXPECT_TRUE(writer.Close());
        EXPECT_TRUE(writer.Close());
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        char bytes[100] = {};
        EXPECT_EQ(16, read(file, bytes, sizeof(bytes)));
        EXPECT_EQ(m_string, std::string(bytes, 16));
        close(file);
        unlink(path.c_str());
    }
}

} // namespace

} // namespace vantor::crash
