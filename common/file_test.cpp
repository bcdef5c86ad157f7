#include "common/file.h"

#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor {
namespace {

using test::readFile;
using test::TemporaryDirectory;
using test::writeFile;

class FileTest : public testing::Test {
protected:
    TemporaryDirectory m_directory;
    const std::string m_path = m_directory / "file";
};

std::string readAll(File& file) {
    std::string content = "from before";
    EXPECT_TRUE(file.seek(0));
    const int64_t length = file.read(&content, file.size());
    EXPECT_EQ(length, static_cast<int64_t>(content.size()));
    return content;
}

TEST_F(FileTest, OpenForReadingNeedsAFile) {
    EXPECT_EQ(File::open(m_path, "r", true), nullptr);
    writeFile(m_path, "text");
    const auto file = File::open(m_path, "r", true);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(readAll(*file), "text");
    EXPECT_EQ(file->path(), m_path);
}

TEST_F(FileTest, ADirectoryOpensItsFilesAsThePathDoes) {
    writeFile(m_path, "text");
    ASSERT_EQ(symlink("file", (m_directory / "link").c_str()), 0);
    const Directory directory(m_directory.path());
    const auto file = directory.open("file", "r", true);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(readAll(*file), "text");
    EXPECT_EQ(file->path(), m_path);
    EXPECT_EQ(directory.open("missing", "r", true), nullptr);
    EXPECT_EQ(directory.open("link", "r", true), nullptr);
}

TEST_F(FileTest, ADirectoryThatCannotBeOpenedHasNoFiles) {
    writeFile(m_path, "text");
    EXPECT_EQ(Directory(m_directory / "missing").open("file", "r", true), nullptr);
    EXPECT_EQ(Directory(m_path).open("file", "r", true), nullptr);
}

TEST_F(FileTest, OpenForWritingAndReadingTruncates) {
    writeFile(m_path, "a long text from before");
    const auto file = File::open(m_path, "w+", true);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->size(), 0);
    EXPECT_TRUE(file->write("new"));
    EXPECT_EQ(readAll(*file), "new");
}

TEST_F(FileTest, ModesAreThoseOfTheCLibrary) {
    writeFile(m_path, "abc");
    EXPECT_TRUE(File::open(m_path, "r+", true)->write("X"));
    EXPECT_EQ(readFile(m_path), "Xbc");
    EXPECT_TRUE(File::open(m_path, "a", true)->write("d"));
    EXPECT_EQ(readFile(m_path), "Xbcd");
    EXPECT_EQ(readAll(*File::open(m_path, "a+b", true)), "Xbcd");
    EXPECT_TRUE(File::open(m_path, "wb", true)->write("Y"));
    EXPECT_EQ(readFile(m_path), "Y");
    EXPECT_EQ(File::open(m_path, "", true), nullptr);
    EXPECT_EQ(File::open(m_path, "rw", true), nullptr);
}

TEST_F(FileTest, OnlyRegularFilesAreOpened) {
    ASSERT_EQ(mkdir(m_path.c_str(), 0700), 0);
    EXPECT_EQ(File::open(m_path, "r", true), nullptr);
    ASSERT_EQ(mkfifo((m_directory / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(File::open(m_directory / "pipe", "r", true), nullptr); // and does not wait for a writer
    EXPECT_EQ(File::open("/dev/null", "r", true), nullptr);
    writeFile(m_directory / "target", "secret");
    ASSERT_EQ(symlink("target", (m_directory / "link").c_str()), 0);
    EXPECT_EQ(File::open(m_directory / "link", "r", true), nullptr);
    EXPECT_EQ(File::open(m_directory / "link", "w+", true), nullptr);
    EXPECT_EQ(readFile(m_directory / "target"), "secret");
}

TEST_F(FileTest, AFileWithASecondNameIsNotEmptied) {
    writeFile(m_directory / "other", "content");
    ASSERT_EQ(link((m_directory / "other").c_str(), m_path.c_str()), 0);
    EXPECT_EQ(File::open(m_path, "w", true), nullptr);
    EXPECT_EQ(File::open(m_path, "w+", true), nullptr);
    EXPECT_EQ(readFile(m_directory / "other"), "content");
    EXPECT_NE(File::open(m_path, "r", true), nullptr);
}

TEST_F(FileTest, ANewFileIsItsOwnersAlone) {
    const mode_t mask = umask(0);
    const auto file = File::open(m_path, "w+", true);
    (void)umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(FileTest, TheThirdArgumentIsCloseOnExec) {
    const int next = dup(0); // the lowest free number, which the file gets
    close(next);
    {
        const auto file = File::open(m_path, "w", true);
        EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
    }
    const auto inherited = File::open(m_path, "w", false);
    EXPECT_EQ(fcntl(next, F_GETFD), 0);
}

TEST_F(FileTest, WhatIsWrittenGoesOutInOnePiece) {
    const auto file = File::open(m_path, "w+", true);
    EXPECT_TRUE(file->write("one\n"));
    EXPECT_TRUE(file->write("two\n"));
    EXPECT_EQ(readFile(m_path), "");
    EXPECT_EQ(file->size(), 8);
    EXPECT_EQ(readFile(m_path), "one\ntwo\n");
}

TEST_F(FileTest, SeekReadAndCloseWriteOut) {
    const auto file = File::open(m_path, "w+", true);
    EXPECT_TRUE(file->write("a"));
    EXPECT_TRUE(file->seek(0));
    EXPECT_EQ(readFile(m_path), "a");
    EXPECT_TRUE(file->write("b"));
    std::string rest;
    EXPECT_EQ(file->read(&rest, 10), 0);
    EXPECT_EQ(readFile(m_path), "b");
    EXPECT_TRUE(file->write("c"));
    EXPECT_TRUE(file->close());
    EXPECT_EQ(readFile(m_path), "bc");
}

TEST_F(FileTest, TheEndOfTheObjectWritesOut) {
    EXPECT_TRUE(File::open(m_path, "w", true)->write("text"));
    EXPECT_EQ(readFile(m_path), "text");
}

TEST_F(FileTest, ReadGivesFewerBytesAtTheEndOnly) {
    writeFile(m_path, "0123456789");
    const auto file = File::open(m_path, "r", true);
    std::string piece;
    EXPECT_EQ(file->read(&piece, 4), 4);
    EXPECT_EQ(piece, "0123");
    EXPECT_EQ(file->read(&piece, 100), 6);
    EXPECT_EQ(piece, "456789");
    EXPECT_EQ(file->read(&piece, 1), 0);
    EXPECT_EQ(piece, "");
    EXPECT_TRUE(file->seek(8));
    EXPECT_EQ(file->read(&piece, 1), 1);
    EXPECT_EQ(piece, "8");
    EXPECT_EQ(file->read(&piece, -1), 0);
}

TEST_F(FileTest, TheSizeDoesNotDependOnThePosition) {
    writeFile(m_path, std::string(70'000, 'x'));
    const auto file = File::open(m_path, "r", true);
    EXPECT_TRUE(file->seek(69'999));
    EXPECT_EQ(file->size(), 70'000);
    std::string rest;
    EXPECT_EQ(file->read(&rest, 2), 1);
}

TEST_F(FileTest, AnythingButThePathFailsAfterClose) {
    const auto file = File::open(m_path, "w+", true);
    EXPECT_TRUE(file->close());
    std::string nothing;
    EXPECT_FALSE(file->close());
    EXPECT_FALSE(file->write("x"));
    EXPECT_FALSE(file->seek(0));
    EXPECT_EQ(file->size(), -1);
    EXPECT_EQ(file->read(&nothing, 1), -1);
    EXPECT_EQ(file->path(), m_path);
}

TEST_F(FileTest, WritingToAFileThatWasOpenedForReadingFailsWhenItGoesOut) {
    writeFile(m_path, "text");
    const auto file = File::open(m_path, "r", true);
    EXPECT_TRUE(file->write("other"));
    EXPECT_FALSE(file->close());
    EXPECT_EQ(readFile(m_path), "text");
}

TEST_F(FileTest, ReadingAFileThatWasOpenedForWritingFails) {
    const auto file = File::open(m_path, "w", true);
    std::string nothing;
    EXPECT_EQ(file->read(&nothing, 1), -1);
}

} // namespace
} // namespace vantor
