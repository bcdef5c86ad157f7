#include "collector/temporary_file.h"

#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>

namespace vantor::collector {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class TemporaryFileTest : public testing::Test {
protected:
    test::TemporaryDirectory m_directory;
};

TEST_F(TemporaryFileTest, GoesWithTheObject) {
    auto file = TemporaryFile::create(m_directory.path());
    ASSERT_NE(file, nullptr);
    EXPECT_TRUE(file->write("text"));
    EXPECT_THAT(m_directory.names(), SizeIs(1));
    file.reset();
    EXPECT_THAT(m_directory.names(), IsEmpty());
}

TEST_F(TemporaryFileTest, OnceMovedItStays) {
    auto file = TemporaryFile::create(m_directory.path());
    test::writeFile(m_directory / "name", "what was there before");
    EXPECT_TRUE(file->write("some "));
    EXPECT_TRUE(file->write("text"));
    EXPECT_TRUE(file->sync());
    EXPECT_TRUE(file->moveTo(m_directory / "name"));
    file.reset();
    EXPECT_THAT(m_directory.names(), ElementsAre("name"));
    EXPECT_EQ(test::readFile(m_directory / "name"), "some text");
}

TEST_F(TemporaryFileTest, WhatCannotBeMovedGoesAllTheSame) {
    auto file = TemporaryFile::create(m_directory.path());
    EXPECT_FALSE(file->moveTo(m_directory / "missing/name"));
    EXPECT_EQ(errno, ENOENT);
    file.reset();
    EXPECT_THAT(m_directory.names(), IsEmpty());
}

TEST_F(TemporaryFileTest, IsItsOwnersAloneAndNotInherited) {
    const auto file = TemporaryFile::create(m_directory.path());
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(m_directory / m_directory.names()[0]).permissions(),
              perms::owner_read | perms::owner_write);
    EXPECT_EQ(fcntl(file->descriptor(), F_GETFD), FD_CLOEXEC);
}

TEST_F(TemporaryFileTest, NeedsADirectory) {
    EXPECT_EQ(TemporaryFile::create(m_directory / "missing"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

} // namespace
} // namespace vantor::collector
