#include "client/report_directory.h"

#include "common/platform_paths.h"
#include "tests/support/covered_file.h"
#include "tests/support/temporary_directory.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace vantor::client {

namespace {

/// A variable of the environment, as it was before when the object goes.
class Variable {
public:
    explicit Variable(const char* name) : m_name(name) {
        const char* const value = getenv(name);
        m_was_set = value != nullptr;
        m_former = m_was_set ? value : "";
    }
    ~Variable() { set(m_was_set ? m_former.c_str() : nullptr); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

    /// Null: it is not set.
    void set(const char* value) {
        if (value != nullptr)
            setenv(m_name, value, 1);
        else
            unsetenv(m_name);
    }

private:
    const char* const m_name;
    bool m_was_set = false;
    std::string m_former;
};

class ReportDirectoryTest : public testing::Test {
protected:
    Variable m_data_home{"XDG_DATA_HOME"};
    Variable m_home{"HOME"};
};

TEST_F(ReportDirectoryTest, IsTheServers) {
    for (const char* data_home :
         {static_cast<const char*>(nullptr), "", "data", "/", "/data", "/data/", "//"}) {
        for (const char* home :
             {static_cast<const char*>(nullptr), "", "home", "/", "/home/me", "/home/me/"}) {
            m_data_home.set(data_home);
            m_home.set(home);
            EXPECT_EQ(platform_paths::localStoragePath(), storageDirectory(""))
                << (data_home != nullptr ? data_home : "not set") << " "
                << (home != nullptr ? home : "not set");
        }
    }
}

TEST_F(ReportDirectoryTest, AnOptionIsAsTheServersVariable) {
    m_data_home.set("/else");
    m_home.set("/home/me");
    for (const char* option : {"/", "/data", "/data/"}) {
        const std::string storage = storageDirectory(option);
        m_data_home.set(option);
        EXPECT_EQ(platform_paths::localStoragePath(), storage);
        m_data_home.set("/else");
    }
    EXPECT_EQ("/else/vantor", storageDirectory("data"));
    EXPECT_EQ("/else/vantor", storageDirectory(""));
}

/// As in a container that runs as a number.
TEST_F(ReportDirectoryTest, AUserWithoutANameHasTheRoot) {
    const test::TemporaryDirectory directory;
    test::writeFile(directory / "empty", "");
    const test::CoveredFile no_users("/etc/passwd", directory / "empty");
    const test::CoveredFile no_other_users("/etc/nsswitch.conf", directory / "empty");
    m_data_home.set(nullptr);
    m_home.set(nullptr);
    EXPECT_EQ("/.local/share/vantor", storageDirectory(""));
    EXPECT_EQ("/.local/share/vantor", platform_paths::localStoragePath());
}

TEST_F(ReportDirectoryTest, HoldsReportsAndRuns) {
    EXPECT_EQ("/data/vantor/crash", reportDirectory(storageDirectory("/data")));
    EXPECT_EQ("/data/vantor/runs", runsDirectory(storageDirectory("/data")));
}

} // namespace

} // namespace vantor::client
