// The files of modules, as Breakpad's dumper gets them through our functions.

#include "crash/dump_in_progress.h"
#include "tests/support/temporary_directory.h"

#include "common/linux/memory_mapped_file.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <optional>

namespace vantor::crash {

namespace {

using google_breakpad::MemoryMappedFile;
using test::readFile;
using test::TemporaryDirectory;
using test::writeFile;

class DumperModulesTest : public testing::Test {
protected:
    DumperModulesTest() {
        writeFile(m_one, "one" + std::string(5000, '1'));
        writeFile(m_two, "two");
    }

    static std::string content(const MemoryMappedFile& file) {
        return std::string(static_cast<const char*>(file.data()), file.size());
    }
    /// What this process has mapped of a file.
    static size_t mappings(const std::string& path) {
        const std::string maps = readFile("/proc/self/maps");
        size_t count = 0;
        for (size_t at = maps.find(path); at != std::string::npos; at = maps.find(path, at + 1))
            ++count;
        return count;
    }

    TemporaryDirectory m_directory;
    const std::string m_one = m_directory / "one";
    const std::string m_two = m_directory / "two";
};

TEST_F(DumperModulesTest, OutsideOfADumpAFileIsMappedAsLongAsItIsUsed) {
    {
        const MemoryMappedFile file(m_one.c_str(), 0);
        EXPECT_EQ(readFile(m_one), content(file));
        const MemoryMappedFile same(m_one.c_str(), 0);
        EXPECT_NE(file.data(), same.data());
    }
    EXPECT_EQ(0U, mappings(m_one));
}

TEST_F(DumperModulesTest, InADumpAFileIsMappedOnce) {
    const DumpInProgress dump;
    const void* first = MemoryMappedFile(m_one.c_str(), 0).data();
    EXPECT_EQ(1U, mappings(m_one));
    std::filesystem::rename(m_one, m_two); // it is not even opened again
    const MemoryMappedFile file(m_one.c_str(), 0);
    EXPECT_EQ(first, file.data());
    EXPECT_EQ("one" + std::string(5000, '1'), content(file));
}

TEST_F(DumperModulesTest, AFileOfTwoNamesIsMappedOnce) {
    std::filesystem::create_symlink(m_one, m_directory / "link");
    const DumpInProgress dump;
    const void* first = MemoryMappedFile(m_one.c_str(), 0).data();
    EXPECT_EQ(first, MemoryMappedFile((m_directory / "link").c_str(), 0).data());
    EXPECT_EQ(1U, mappings(m_one));
}

TEST_F(DumperModulesTest, TheNextFileEndsTheMappingOfTheOneBefore) {
    const DumpInProgress dump;
    EXPECT_EQ(readFile(m_one), content(MemoryMappedFile(m_one.c_str(), 0)));
    EXPECT_EQ("two", content(MemoryMappedFile(m_two.c_str(), 0)));
    EXPECT_EQ(0U, mappings(m_one));
    EXPECT_EQ(1U, mappings(m_two));
}

TEST_F(DumperModulesTest, FilesThatAreInUseAtOnceStay) {
    {
        const DumpInProgress dump;
        const MemoryMappedFile one(m_one.c_str(), 0);
        {
            const MemoryMappedFile two(m_two.c_str(), 0);
            const MemoryMappedFile one_again(m_one.c_str(), 0);
            EXPECT_EQ("two", content(two));
            EXPECT_EQ(one.data(), one_again.data());
        }
        EXPECT_EQ(0U, mappings(m_two));
        EXPECT_EQ(readFile(m_one), content(one));
    }
    EXPECT_EQ(0U, mappings(m_one));
}

TEST_F(DumperModulesTest, AnOffsetIsAnotherMapping) {
    const DumpInProgress dump;
    EXPECT_EQ(readFile(m_one), content(MemoryMappedFile(m_one.c_str(), 0)));
    EXPECT_EQ(readFile(m_one).substr(4096), content(MemoryMappedFile(m_one.c_str(), 4096)));
    EXPECT_EQ(readFile(m_one), content(MemoryMappedFile(m_one.c_str(), 0)));
}

TEST_F(DumperModulesTest, AFileThatIsReplacedBetweenDumpsIsReadAnew) {
    {
        const DumpInProgress dump;
        (void)MemoryMappedFile(m_two.c_str(), 0);
    }
    EXPECT_EQ(0U, mappings(m_two));
    std::filesystem::rename(m_one, m_two);
    const DumpInProgress dump;
    EXPECT_EQ(readFile(m_two), content(MemoryMappedFile(m_two.c_str(), 0)));
}

TEST_F(DumperModulesTest, ThereMayBeNothing) {
    writeFile(m_directory / "empty", "");
    for (const bool is_dump : {false, true}) {
        std::optional<DumpInProgress> dump;
        if (is_dump)
            dump.emplace();
        MemoryMappedFile file;
        EXPECT_FALSE(file.Map((m_directory / "none").c_str(), 0));
        EXPECT_EQ(nullptr, file.data());
        EXPECT_TRUE(file.Map((m_directory / "empty").c_str(), 0));
        EXPECT_EQ(nullptr, file.data());
        EXPECT_TRUE(file.Map(m_two.c_str(), 4096));
        EXPECT_EQ(nullptr, file.data());
        EXPECT_FALSE(file.Map(m_one.c_str(), 1)); // in the middle of a page
        EXPECT_EQ(nullptr, file.data());
        EXPECT_TRUE(file.Map(m_two.c_str(), 0));
        EXPECT_EQ("two", content(file));
    }
    EXPECT_EQ(0U, mappings(m_two));
}

} // namespace

} // namespace vantor::crash
