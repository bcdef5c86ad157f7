#include "common/file.h"

#include "tests/support/temporary_directory.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor {
namespace {

using test::exists;
using test::TemporaryDirectory;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TEST(FilePathsTest, TheLastExtensionIsStripped) {
    EXPECT_EQ(File::stripExtension("a/b.dmp"), "a/b");
    EXPECT_EQ(File::stripExtension("b.tar.gz"), "b.tar");
    EXPECT_EQ(File::stripExtension("a/b"), "a/b");
    EXPECT_EQ(File::stripExtension("a.d/b"), "a.d/b");
    EXPECT_EQ(File::stripExtension("a/.hidden"), "a/.hidden");
    EXPECT_EQ(File::stripExtension("a/b."), "a/b");
    EXPECT_EQ(File::stripExtension(""), "");
}

TEST(FilePathsTest, TheExtensionIsWhatWasStripped) {
    EXPECT_EQ(File::extension("a/b.params"), "params");
    EXPECT_EQ(File::extension("b.params.bak"), "bak");
    EXPECT_EQ(File::extension("a.d/b"), "");
    EXPECT_EQ(File::extension(".params"), "");
    EXPECT_EQ(File::extension("b."), "");
}

TEST(FilePathsTest, TheBasenameIsTheLastComponent) {
    EXPECT_EQ(File::basename("/a/b.dmp"), "b.dmp");
    EXPECT_EQ(File::basename("b.dmp"), "b.dmp");
    EXPECT_EQ(File::basename("a/"), "");
}

TEST(FilePathsTest, JoinPutsOneSeparatorBetween) {
    EXPECT_EQ(File::joinPath("a", "b"), "a/b");
    EXPECT_EQ(File::joinPath("a/", "b"), "a/b");
    EXPECT_EQ(File::joinPath("a", "/b"), "a/b");
    EXPECT_EQ(File::joinPath("a/", "/b"), "a/b");
    EXPECT_EQ(File::joinPath("/", "b"), "/b");
    EXPECT_EQ(File::joinPath("", "b"), "b");
    EXPECT_EQ(File::joinPath("a", ""), "a");
}

TEST(FileListTest, TellsFilesFromDirectories) {
    const TemporaryDirectory directory;
    writeFile(directory / "b", "");
    writeFile(directory / "a.params", "");
    ASSERT_EQ(mkdir((directory / "sub").c_str(), 0700), 0);
    writeFile(directory / "sub/not.listed", "");
    ASSERT_EQ(symlink("sub", (directory / "link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (directory / "dangling").c_str()), 0);

    std::vector<std::string> files = {"from before"};
    std::vector<std::string> directories = {"from before"};
    EXPECT_TRUE(File::listFiles(directory.path(), true, &files, &directories));
    EXPECT_THAT(files, ElementsAre("a.params", "b", "dangling"));
    EXPECT_THAT(directories, ElementsAre("link", "sub"));

    EXPECT_TRUE(File::listFiles(directory.path(), false, &files, nullptr));
    EXPECT_THAT(files, UnorderedElementsAre("a.params", "b", "dangling"));
}

TEST(FileListTest, ADirectoryThatCannotBeReadHasNoFiles) {
    const TemporaryDirectory directory;
    std::vector<std::string> files = {"from before"};
    EXPECT_FALSE(File::listFiles(directory / "missing", false, &files, nullptr));
    EXPECT_THAT(files, IsEmpty());
    writeFile(directory / "file", "");
    EXPECT_FALSE(File::listFiles(directory / "file", false, &files, nullptr));
}

TEST(FileRemoveTest, DeletesFilesAndNoDirectories) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "");
    EXPECT_TRUE(File::remove(directory / "file"));
    EXPECT_FALSE(exists(directory / "file"));
    EXPECT_FALSE(File::remove(directory / "file"));
    EXPECT_FALSE(File::remove(directory.path()));
    EXPECT_TRUE(exists(directory.path()));
}

TEST(FileCreateDirTest, CreatesWhatIsMissing) {
    const TemporaryDirectory directory;
    const mode_t mask = umask(027);
    EXPECT_TRUE(File::recursivelyCreateDir(directory / "a/b/c", 0777));
    (void)umask(mask);
    for (const char* name : {"a", "a/b", "a/b/c"}) {
        struct stat status = {};
        ASSERT_EQ(stat((directory / name).c_str(), &status), 0) << name;
        EXPECT_EQ(status.st_mode & 07777, 0750U) << name;
    }
    EXPECT_TRUE(File::recursivelyCreateDir(directory / "a/b/c", 0777));
    EXPECT_TRUE(File::recursivelyCreateDir(directory / "a/b/c/", 0777));
}

TEST(FileCreateDirTest, FailsWhereAFileStandsInTheWay) {
    const TemporaryDirectory directory;
    writeFile(directory / "file", "");
    EXPECT_FALSE(File::recursivelyCreateDir(directory / "file", 0777));
    EXPECT_FALSE(File::recursivelyCreateDir(directory / "file/below", 0777));
}

} // namespace
} // namespace vantor
