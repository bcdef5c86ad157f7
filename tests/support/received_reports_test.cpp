#include "tests/support/received_reports.h"

#include "tests/support/temporary_directory.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>

namespace vantor::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

FormPart field(const std::string& name, const std::string& value) {
    return {name, std::nullopt, "", value};
}

FormPart file(const std::string& filename, const std::string& content) {
    return {"crash", filename, "application/octet-stream", content};
}

class ReceivedReportsTest : public testing::Test {
protected:
    /// The status that the sender of that form gets.
    int receive(const std::vector<FormPart>& form) {
        ReceivedRequest request;
        request.form = form;
        return m_reports.receive(request).status;
    }

    TemporaryDirectory m_directory;
    std::ostringstream m_log;
    ReceivedReports m_reports{m_directory.path(), &m_log};
};

TEST_F(ReceivedReportsTest, KeepsTheDumpAndTheFieldsInTheirOrder) {
    const std::string dump("MDMP\0\r\n\xFF", 8);
    EXPECT_EQ(receive({field("version", "1.0"), field("b", "2"), file("12-AB-ef.dmp", dump), field("a", "")}),
              200);
    EXPECT_THAT(m_directory.names(), ElementsAre("12-AB-ef.dmp", "12-AB-ef.fields"));
    EXPECT_EQ(readFile(m_directory / "12-AB-ef.dmp"), dump);
    EXPECT_EQ(readFile(m_directory / "12-AB-ef.fields"), "version\n1.0\nb\n2\na\n\n");
    EXPECT_EQ(m_log.str(), "received 12-AB-ef.dmp (8 bytes, 3 fields)\n");
}

TEST_F(ReceivedReportsTest, KeepsAReportWithoutFields) {
    EXPECT_EQ(receive({file("1.dmp", "")}), 200);
    EXPECT_EQ(readFile(m_directory / "1.fields"), "");
    EXPECT_TRUE(exists(m_directory / "1.dmp"));
    EXPECT_EQ(m_log.str(), "received 1.dmp (0 bytes, 0 fields)\n");
}

TEST_F(ReceivedReportsTest, AReportThatComesAgainReplacesTheFirst) {
    EXPECT_EQ(receive({file("1.dmp", "a longer dump"), field("a", "1")}), 200);
    EXPECT_EQ(receive({file("1.dmp", "dump"), field("b", "2")}), 200);
    EXPECT_EQ(readFile(m_directory / "1.dmp"), "dump");
    EXPECT_EQ(readFile(m_directory / "1.fields"), "b\n2\n");
}

TEST_F(ReceivedReportsTest, TrustsNoFileName) {
    for (const char* name : {"", ".dmp", "1", "1.DMP", "1.dmp ", "1.dmp.dmp", "g.dmp", "1_2.dmp", "../1.dmp",
                             "/1.dmp", "a/1.dmp", "..dmp", "1.fields", "1\n.dmp"})
        EXPECT_EQ(receive({file(name, "dump")}), 400) << name;
    EXPECT_EQ(receive({file(std::string("1\0.dmp", 6), "dump")}), 400);
    EXPECT_THAT(m_directory.names(), IsEmpty());
    EXPECT_EQ(m_log.str(), "");
}

TEST_F(ReceivedReportsTest, RefusesFormsThatAreNoReport) {
    EXPECT_EQ(receive({}), 400);
    EXPECT_EQ(receive({field("guid", "1")}), 400);
    EXPECT_EQ(receive({file("1.dmp", "dump"), file("2.dmp", "dump")}), 400);
    EXPECT_EQ(receive({file("1.dmp", "dump"), field("two\nlines", "1")}), 400);
    EXPECT_EQ(receive({field("a", "two\nlines"), file("1.dmp", "dump")}), 400);
    EXPECT_THAT(m_directory.names(), IsEmpty());
}

TEST_F(ReceivedReportsTest, SaysWhenTheFilesCannotBeWritten) {
    ReceivedReports nowhere(m_directory / "missing", &m_log);
    ReceivedRequest request;
    request.form = {file("1.dmp", "dump")};
    EXPECT_EQ(nowhere.receive(request).status, 500);
    EXPECT_EQ(m_log.str(), "");
}

TEST_F(ReceivedReportsTest, LeavesNoHalfFileBehind) {
    std::filesystem::create_directory(m_directory / "1.dmp"); // no file can take its place
    EXPECT_EQ(receive({file("1.dmp", "dump")}), 500);
    EXPECT_THAT(m_directory.names(), ElementsAre("1.dmp", "1.fields"));
}

TEST_F(ReceivedReportsTest, SeveralThreadsMayReceiveAtATime) {
    const auto receive_twenty = [this](const std::string& filename) {
        for (int i = 1; i <= 20; ++i) {
            EXPECT_EQ(receive({file(filename, "dump"), field("i", std::to_string(i))}), 200);
        }
    };
    std::thread first(receive_twenty, "1.dmp");
    std::thread second(receive_twenty, "2.dmp");
    receive_twenty("3.dmp");
    first.join();
    second.join();
    EXPECT_THAT(m_directory.names(),
                ElementsAre("1.dmp", "1.fields", "2.dmp", "2.fields", "3.dmp", "3.fields"));
    EXPECT_EQ(readFile(m_directory / "1.fields"), "i\n20\n");
}

} // namespace
} // namespace vantor::test
