#include "collector/incoming_report.h"

#include "tests/support/printed_rejection.h"
#include "tests/support/small_minidump.h"
#include "tests/support/temporary_directory.h"

#include <filesystem>
#include <gmock/gmock.h>

namespace vantor::collector {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

const std::string kName = "01234567-89ab-cdef-01234567-89abcdef";
const std::string kDump = test::SmallMinidump().bytes();
const std::string kEnd = "--bound--\r\n";

std::string part(const std::string& parameters, const std::string& body) {
    return "--bound\r\nContent-Disposition: form-data; " + parameters + "\r\n\r\n" + body + "\r\n";
}

std::string fieldPart(const std::string& name, const std::string& value) {
    return part("name=\"" + name + "\"", value);
}

std::string dumpPart(const std::string& filename = kName + ".dmp", const std::string& dump = kDump) {
    return part("name=\"crash\"; filename=\"" + filename + "\"", dump);
}

class IncomingReportTest : public testing::Test {
protected:
    IncomingReportTest() { EXPECT_EQ(m_store.recover(), std::nullopt); }

    /// What becomes of a form that is uploaded.
    std::optional<Rejection> upload(const std::string& form, size_t piece_size = SIZE_MAX) {
        IncomingReport report(m_store);
        FormReader reader("bound", FormLimits(), report);
        for (std::string_view rest = form; !rest.empty();
             rest.remove_prefix(std::min(rest.size(), piece_size)))
            (void)reader.feed(rest.substr(0, piece_size));
        if (const auto& rejection = reader.finish())
            return rejection;
        return report.commit();
    }

    void expectRefused(const std::string& form, const std::string& reason) {
        EXPECT_EQ(upload(form), bad(reason)) << form;
        EXPECT_THAT(m_store.newest(1), IsEmpty()) << form;
        EXPECT_TRUE(isEmptyBelow("incoming")) << form;
        EXPECT_TRUE(isEmptyBelow("reports")) << form;
    }

    bool isEmptyBelow(const std::string& name) const { return std::filesystem::is_empty(m_directory / name); }

    test::TemporaryDirectory m_directory;
    ReportStore m_store = ReportStore(m_directory.path());
};

TEST_F(IncomingReportTest, AFormBecomesAReport) {
    EXPECT_EQ(upload(fieldPart("guid", "another") + dumpPart() + fieldPart("crash", "a%22b") + kEnd),
              std::nullopt);
    const auto report = m_store.find(kName);
    ASSERT_TRUE(report);
    EXPECT_EQ(test::readFile(report->dump_path), kDump);
    EXPECT_THAT(*m_store.params(kName), ElementsAre(Pair("crash", "a%22b"), Pair("guid", "another")));
    EXPECT_TRUE(isEmptyBelow("incoming"));
}

TEST_F(IncomingReportTest, ByteByByteItBecomesTheSame) {
    EXPECT_EQ(upload(fieldPart("guid", kName) + dumpPart() + kEnd, 1), std::nullopt);
    const auto report = m_store.find(kName);
    ASSERT_TRUE(report);
    EXPECT_EQ(test::readFile(report->dump_path), kDump);
    EXPECT_EQ(m_store.params(kName), (Params{{"guid", kName}}));
}

TEST_F(IncomingReportTest, TheDumpIsOnTheDiskWhileItComes) {
    IncomingReport report(m_store);
    EXPECT_EQ(report.name(), "");
    EXPECT_EQ(report.beginFile("crash", kName + ".dmp"), std::nullopt);
    EXPECT_EQ(report.name(), kName);
    EXPECT_EQ(report.fileData("MD"), std::nullopt);
    const std::filesystem::directory_iterator incoming(m_directory / "incoming");
    EXPECT_EQ(test::readFile(incoming->path().string()), "MD");
}

TEST_F(IncomingReportTest, AFormThatIsCutLeavesNothing) {
    const std::string form = fieldPart("a", "1") + dumpPart() + fieldPart("b", "2") + kEnd;
    for (size_t size = 0; size < form.size() - 2; ++size)
        expectRefused(form.substr(0, size), "The form ends before its closing boundary.");
    EXPECT_EQ(upload(form.substr(0, form.size() - 2)), std::nullopt);
}

TEST_F(IncomingReportTest, TheFileMustBeNamedForTheReport) {
    const std::string reason =
        "The file's name is not 36 characters out of hexadecimal digits and dashes, and \".dmp\".";
    for (const std::string& filename :
         {std::string(), std::string(".dmp"), kName, kName + ".DMP", kName + ".dmp.dmp", kName + ".dmp ",
          kName.substr(1) + ".dmp", kName + "0.dmp", kName.substr(1) + "g.dmp", kName.substr(1) + "..dmp",
          "../" + kName + ".dmp", "../" + kName.substr(3) + ".dmp", "/tmp/" + kName + ".dmp",
          "/tmp/" + kName.substr(5) + ".dmp", "..\\" + kName.substr(3) + ".dmp", kName.substr(1) + "%0A.dmp",
          kName.substr(3) + "%22.dmp", kName.substr(1) + "\xc3\xa4.dmp"})
        expectRefused(dumpPart(filename) + kEnd, reason);
    expectRefused(dumpPart(kName.substr(1) + std::string(1, '\0') + ".dmp") + kEnd,
                  "The header of a part is not well formed.");

    IncomingReport report(m_store);
    EXPECT_EQ(report.beginFile("crash", kName + std::string(1, '\0') + ".dmp"), bad(reason));
}

TEST_F(IncomingReportTest, ThereMustBeOneFileAndItMustBeTheDump) {
    expectRefused(kEnd, "The form has no file that is named \"crash\".");
    expectRefused(fieldPart("crash", "MDMP") + kEnd, "The form has no file that is named \"crash\".");
    expectRefused(dumpPart() + dumpPart() + kEnd, "The form has more than one file.");
    expectRefused(part("name=\"core\"; filename=\"" + kName + ".dmp\"", kDump) + kEnd,
                  "The form has a file that is not named \"crash\".");
}

TEST_F(IncomingReportTest, TheDumpMustBeAWholeMinidump) {
    expectRefused(dumpPart(kName + ".dmp", "") + kEnd, "The dump is too short for a minidump.");
    expectRefused(dumpPart(kName + ".dmp", kDump.substr(0, kDump.size() - 1)) + kEnd,
                  "The dump ends before one of its streams does.");
    expectRefused(dumpPart(kName + ".dmp", "X" + kDump.substr(1)) + kEnd,
                  "The dump does not begin as a minidump does.");
}

TEST_F(IncomingReportTest, FieldsMustFitIntoAParametersFile) {
    const std::string forbidden = "A field of the form has a line feed or a NUL in its name or its value.";
    expectRefused(fieldPart("", "1") + dumpPart() + kEnd, "A field of the form has no name.");
    expectRefused(fieldPart("a%0Ab", "1") + dumpPart() + kEnd, forbidden);
    expectRefused(fieldPart("a", "1\n") + dumpPart() + kEnd, forbidden);
    expectRefused(fieldPart("a", "\r\n1") + dumpPart() + kEnd, forbidden);
    expectRefused(fieldPart("a", std::string(1, '\0')) + dumpPart() + kEnd, forbidden);
    expectRefused(fieldPart("a", "1") + fieldPart("a", "1") + dumpPart() + kEnd,
                  "A field stands in the form twice.");
    expectRefused(fieldPart("a", "") + fieldPart("a", "1") + dumpPart() + kEnd,
                  "A field stands in the form twice.");

    IncomingReport report(m_store);
    EXPECT_EQ(report.field(std::string("a\0b", 3), "1"), bad(forbidden));
}

TEST_F(IncomingReportTest, AnyOtherBytesAreKept) {
    EXPECT_EQ(upload(fieldPart("a%22%0D%41\\", "\t\x01\xff\r\x7f") + fieldPart("b", "") + dumpPart() + kEnd),
              std::nullopt);
    EXPECT_EQ(m_store.params(kName), (Params{{"a\"\r%41\\", "\t\x01\xff\r\x7f"}}));
}

TEST_F(IncomingReportTest, SentTwiceItIsOneReport) {
    EXPECT_EQ(upload(dumpPart() + kEnd), std::nullopt);
    EXPECT_EQ(upload(fieldPart("a", "1") + fieldPart("b", "") + dumpPart() + kEnd), std::nullopt);
    EXPECT_THAT(m_store.newest(2), SizeIs(1));
    EXPECT_EQ(m_store.params(kName), (Params{{"a", "1"}}));
    EXPECT_TRUE(isEmptyBelow("incoming"));
}

TEST_F(IncomingReportTest, WithoutADiskTheSenderMayTryAgain) {
    std::filesystem::remove_all(m_directory / "incoming");
    EXPECT_EQ(
        upload(dumpPart() + kEnd),
        (Rejection{Rejection::Kind::NoStorage, "The dump cannot be stored: No such file or directory."}));
    EXPECT_TRUE(isEmptyBelow("reports"));
}

} // namespace
} // namespace vantor::collector
