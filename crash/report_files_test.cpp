#include "crash/report_files.h"

#include <gmock/gmock.h>

namespace vantor::crash {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const std::string kStem = "01234567-89ab-cdef-01234567-89abcdef";

TEST(ReportFilesTest, APairSharesItsStem) {
    EXPECT_EQ(paramsPathOf("/crash/" + kStem + ".dmp"), "/crash/" + kStem + ".params");
    EXPECT_EQ(dumpPathOf("/crash/" + kStem + ".params"), "/crash/" + kStem + ".dmp");
    EXPECT_EQ(stemOf("/crash.d/" + kStem + ".dmp"), kStem);
    EXPECT_EQ(kStem.size(), kGuidLength);
}

TEST(ReportFilesTest, ARecordIsTwoLines) {
    EXPECT_EQ(formatRecord("name", "value"), "name\nvalue\n");
    EXPECT_EQ(formatRecord("n\tam\xff", " v=\\ "), "n\tam\xff\n v=\\ \n");
    EXPECT_EQ(formatRecord("name", "two\nlines"), "name\ntwo\nlines\n");
}

TEST(ReportFilesTest, ARecordWithAnEmptyPartIsLeftOut) {
    EXPECT_EQ(formatRecord("", "value"), "");
    EXPECT_EQ(formatRecord("name", ""), "");
    EXPECT_EQ(formatRecord("", ""), "");
}

TEST(JudgeParamsTest, RejectsWhatIsOverALimit) {
    const std::string name(128, 'n');
    const std::string value(512, 'v');
    const std::string odd = "Params file does not have an even number of lines!\n";
    const std::string no_guid = "GUID not 36 chars!\n";
    const std::string too_long = "Name/value too long!\n";
    const struct {
        const char* what;
        std::string text;
        std::string stem;
        std::string complaint;
    } cases[] = {
        {"an empty file", "", kStem, ""},
        {"one record", "a\n1\n", kStem, ""},
        {"no line feed at the end", "a\n1", kStem, ""},
        {"empty lines", "\n\na\n\n1\n\n", kStem, ""},
        {"the longest name and value", name + "\n" + value + "\n", kStem, ""},
        {"a name too long", name + "n\n" + value + "\n", kStem, too_long},
        {"a value too long", name + "\n" + value + "v\n", kStem, too_long},
        {"a later record too long", "a\n1\nb\n" + value + "v\n", kStem, too_long},
        {"a line too few", "a\n1\nb\n", kStem, odd},
        {"one value of two lines", "a\n1\n1\nb\n2\n", kStem, odd},
        {"two values of two lines", "a\n1\n1\nb\n2\n2\n", kStem, ""},
        {"a stem too short", "", kStem.substr(1), no_guid},
        {"a stem too long", "", kStem + "0", no_guid},
        {"a stem of any characters", "", std::string(36, '.'), ""},
        {"odd lines and a bad stem", "a\n", "x", odd},
        {"a bad stem and a name too long", name + "n\n1\n", "x", no_guid},
    };
    for (const auto& each : cases) {
        const ParamsVerdict verdict = judgeParams(each.text, each.stem);
        EXPECT_EQ(verdict.complaint, each.complaint) << each.what;
        EXPECT_EQ(verdict.upload_params.empty(), !each.complaint.empty()) << each.what;
    }
}

TEST(JudgeParamsTest, TheStemIsTheGuidParameter) {
    EXPECT_THAT(judgeParams("", kStem).upload_params, ElementsAre(Pair("guid", kStem)));
    EXPECT_THAT(judgeParams("b\n2\na\n1\n", kStem).upload_params,
                ElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("guid", kStem)));
}

TEST(JudgeParamsTest, LaterParametersReplaceEarlierOnes) {
    EXPECT_THAT(judgeParams("a\n1\na\n2\n", kStem).upload_params,
                ElementsAre(Pair("a", "2"), Pair("guid", kStem)));
    EXPECT_THAT(judgeParams("guid\nmine\n", kStem).upload_params, ElementsAre(Pair("guid", "mine")));
}

TEST(JudgeParamsTest, ShiftedRecordsAreTakenAsTheyStand) {
    EXPECT_THAT(judgeParams("a\n1\n1\nb\n2\n2\n", kStem).upload_params,
                ElementsAre(Pair("1", "b"), Pair("2", "2"), Pair("a", "1"), Pair("guid", kStem)));
}

} // namespace
} // namespace vantor::crash
