// What others can see of a crash: the rights to files and directories, and the words on standard error.

#include "tests/support/crash_server_test.h"
#include "tests/support/messages.h"
#include "tests/support/programs.h"

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

namespace vantor::test {

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
    return status.st_mode & 07777;
}

/// The mask of this process, and of all that it starts.
class Umask {
public:
    explicit Umask(mode_t mask) : m_before(umask(mask)) {}
    ~Umask() { (void)umask(m_before); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    const mode_t m_before;
};

class SecrecyTest : public CrashServerTest {
protected:
    /// A crash whose report stays on disk.
    void crashUnsent(const std::vector<ClientRecord>& records = {record("product", "sample")}) {
        openCollector({.answer = [](const ReceivedRequest&) { return Answer::status_code(503); }});
        const auto application = startGuarded();
        application->annotate(records);
        EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
        awaitWords("Failed to upload");
        endQuietly(*application);
        ASSERT_THAT(crashFiles(), SizeIs(2));
    }
};

class SecrecyOfFilesTest : public SecrecyTest, public testing::WithParamInterface<mode_t> {};

TEST_P(SecrecyOfFilesTest, ReportsAreTheirOwnersAloneAndDirectoriesAsTheMaskSays) {
    const Umask mask(GetParam());
    crashUnsent();
    for (const std::string& name : crashFiles())
        EXPECT_EQ(0600U, modeOf(pathOf(name))) << name;
    EXPECT_EQ(0777U & ~GetParam(), modeOf(directory() + "/vantor"));
    EXPECT_EQ(0777U & ~GetParam(), modeOf(crashDirectory()));
}

INSTANTIATE_TEST_SUITE_P(Masks, SecrecyOfFilesTest, testing::Values(0, 022, 077));

TEST_F(SecrecyTest, ADirectoryThatWasMadeForTheOwnerStaysSo) {
    const Umask mask(0);
    std::filesystem::create_directories(crashDirectory());
    EXPECT_EQ(0, chmod(crashDirectory().c_str(), 0700));
    crashUnsent();
    EXPECT_EQ(0700U, modeOf(crashDirectory()));
}

TEST_F(SecrecyTest, ACrashDirectoryThatIsALinkIsFollowed) {
    std::filesystem::create_directories(directory() + "/elsewhere");
    std::filesystem::create_directories(directory() + "/vantor");
    std::filesystem::create_directory_symlink(directory() + "/elsewhere", crashDirectory());
    crashUnsent();
    EXPECT_TRUE(std::filesystem::is_symlink(crashDirectory()));
    EXPECT_FALSE(std::filesystem::is_empty(directory() + "/elsewhere"));
}

TEST_F(SecrecyTest, WordsTellPathsAndNumbersAndNoContent) {
    setenv("VANTOR_TEST_PASSWORD", "of-the-environment", 1);
    crashUnsent({record("token", "of-an-annotation"), record("of-a-name", "1")});
    unsetenv("VANTOR_TEST_PASSWORD");
    EXPECT_THAT(words(), HasSubstr("Crash! Client with PID "));
    for (const char* secret : {"of-the-environment", "token", "of-an-annotation", "of-a-name"})
        EXPECT_THAT(words(), Not(HasSubstr(secret)));
}

/// Whoever sends reports to a machine of somebody else must know it.
TEST_F(SecrecyTest, TheDumpHoldsTheEnvironmentAndTheCommandLine) {
    setenv("VANTOR_TEST_PASSWORD", "of-the-environment", 1);
    const auto application = startGuarded();
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    awaitUploads(1);
    endQuietly(*application);
    unsetenv("VANTOR_TEST_PASSWORD");
    const std::string dump = dumpOf(onlyReport());
    EXPECT_THAT(dump, HasSubstr("VANTOR_TEST_PASSWORD=of-the-environment"));
    EXPECT_THAT(dump, HasSubstr(kTestApplication));
}

} // namespace

} // namespace vantor::test
