#include "tests/support/crash_server_test.h"
#include "tests/support/messages.h"

#include <filesystem>
#include <sys/stat.h>

namespace vantor::test {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const std::string kDump = std::string("MDMP\0\r\n--\xff", 11) + std::string(100'000, 'd');

/// What a server does about the reports that it finds.
class LeftoversTest : public CrashServerTest {
protected:
    /// Starts a server, waits until `uploads` reports have gone, and ends it. What it said about left-overs
    /// comes back.
    std::vector<std::string> serve(size_t uploads) {
        const auto application = startGuarded();
        awaitUploads(uploads);
        endQuietly(*application);
        std::vector<std::string> said = lines();
        std::erase(said, newClient(application->pid()));
        std::erase(said, clientExited(application->pid()));
        return said;
    }

    /// What arrives of a pair with these parameters.
    Fields arrived(const std::string& params) {
        leavePair(kStem, params, kDump);
        EXPECT_THAT(serve(1), ElementsAre(uploading(pathOf(kStem + ".dmp")), uploaded(pathOf(kStem + ".dmp")),
                                          stackTrace(kStem)));
        EXPECT_THAT(crashFiles(), IsEmpty());
        const ReceivedRequest report = onlyReport();
        EXPECT_EQ(kStem + ".dmp", dumpNameOf(report));
        EXPECT_EQ(kDump, dumpOf(report));
        return fieldsOf(report);
    }

    void expectRejected(const std::string& stem, const std::string& params, const std::string& complaint) {
        leavePair(stem, params);
        EXPECT_THAT(serve(0), ElementsAre(complaint));
        EXPECT_THAT(crashFiles(), IsEmpty());
        EXPECT_EQ(0, collector().connectionsAccepted());
    }

    /// Expects what stands in the crash directory to be left alone.
    void expectUntouched() {
        const std::vector<std::string> before = crashFiles();
        EXPECT_THAT(serve(0), IsEmpty());
        EXPECT_EQ(before, crashFiles());
        EXPECT_EQ(0, collector().connectionsAccepted());
    }

    /// Records of 500 bytes each, and a last one for what is left.
    static std::string paramsOfSize(size_t size) {
        std::string params;
        for (int i = 1000; size - params.size() >= 500; ++i)
            params += std::to_string(i) + "\n" + std::string(494, 'v') + "\n";
        const size_t left = size - params.size();
        return params + "z\n" + std::string(left - 3, 'v') + "\n";
    }
};

TEST_F(LeftoversTest, APairIsSentAndDeleted) {
    EXPECT_THAT(
        arrived("product\nsample\ntime\n1700000000123456789\n"),
        ElementsAre(Pair("guid", kStem), Pair("product", "sample"), Pair("time", "1700000000123456789")));
}

TEST_F(LeftoversTest, EmptyParametersAreNoFault) {
    EXPECT_THAT(arrived(""), ElementsAre(Pair("guid", kStem)));
}

TEST_F(LeftoversTest, AnEmptyDumpIsSentAsItIs) {
    leavePair(kStem, "a\n1\n", "");
    EXPECT_THAT(serve(1), Contains(uploaded(pathOf(kStem + ".dmp"))));
    EXPECT_THAT(crashFiles(), IsEmpty());
    const ReceivedRequest report = onlyReport();
    ASSERT_NE(nullptr, report.part("crash"));
    EXPECT_EQ(kStem + ".dmp", report.part("crash")->filename);
    EXPECT_EQ("", report.part("crash")->body);
    EXPECT_THAT(annotationsOf(report), ElementsAre(Pair("a", "1")));
}

TEST_F(LeftoversTest, EmptyLinesAreNone) {
    EXPECT_THAT(arrived("\n\na\n\n1\n\n"), ElementsAre(Pair("a", "1"), Pair("guid", kStem)));
}

TEST_F(LeftoversTest, AGuidAmongTheParametersReplacesTheName) {
    EXPECT_THAT(arrived("guid\nanother\n"), ElementsAre(Pair("guid", "another")));
}

TEST_F(LeftoversTest, TheLaterOfTwoWithOneNameWins) {
    EXPECT_THAT(arrived("a\n1\na\n2\n"), ElementsAre(Pair("a", "2"), Pair("guid", kStem)));
}

TEST_F(LeftoversTest, TheLongestNameAndValuePass) {
    const std::string name(128, 'n');
    const std::string value(512, 'v');
    EXPECT_THAT(arrived(name + "\n" + value + "\n"), ElementsAre(Pair("guid", kStem), Pair(name, value)));
}

TEST_F(LeftoversTest, TheLargestParametersPass) {
    const std::string params = paramsOfSize(102'400);
    EXPECT_EQ(102'400u, params.size());
    const Fields fields = arrived(params);
    EXPECT_EQ(206u, fields.size()); // 204 records of 500 bytes, one of 400, and the guid
    EXPECT_EQ(std::string(397, 'v'), fields.at("z"));
}

TEST_F(LeftoversTest, LargerParametersAreRejected) {
    expectRejected(kStem, paramsOfSize(102'401), kEnormous);
}

TEST_F(LeftoversTest, AnOddLineIsRejected) {
    expectRejected(kStem, "a\n1\nb\n", kOddLines);
}

TEST_F(LeftoversTest, AShortStemIsRejected) {
    expectRejected(kStem.substr(1), "a\n1\n", kWrongGuid);
}

TEST_F(LeftoversTest, ALongStemIsRejected) {
    expectRejected(kStem + "7", "a\n1\n", kWrongGuid);
}

TEST_F(LeftoversTest, ALongerNameIsRejected) {
    expectRejected(kStem, std::string(129, 'n') + "\n1\n", kTooLong);
}

TEST_F(LeftoversTest, ALongerValueIsRejected) {
    expectRejected(kStem, "a\n" + std::string(513, 'v') + "\n", kTooLong);
}

TEST_F(LeftoversTest, ADumpAloneIsLeftAlone) {
    leaveFile(kStem + ".dmp", kDump);
    expectUntouched();
    EXPECT_EQ(kDump, readFile(pathOf(kStem + ".dmp")));
}

TEST_F(LeftoversTest, ParametersAloneAreLeftAlone) {
    leaveFile(kStem + ".params", "a\n1\n");
    expectUntouched();
}

TEST_F(LeftoversTest, OtherFilesAreLeftAlone) {
    for (const char* name : {"readme.txt", "params", ".params", "x.params.old", "x.PARAMS"})
        leaveFile(name, "a\n1\n");
    leaveFile("x.dmp", kDump);
    expectUntouched();
}

TEST_F(LeftoversTest, ADirectoryIsNoReport) {
    leaveFile(kStem + ".dmp", kDump);
    std::filesystem::create_directory(pathOf(kStem + ".params"));
    const std::string other = "1" + kStem.substr(1);
    leaveFile(other + ".params", "a\n1\n");
    std::filesystem::create_directory(pathOf(other + ".dmp"));
    expectUntouched();
}

TEST_F(LeftoversTest, ALinkIsNoReport) {
    const std::string secret = directory() + "/secret";
    writeFile(secret, "a\n1\n");
    leaveFile(kStem + ".params", "a\n1\n");
    std::filesystem::create_symlink(secret, pathOf(kStem + ".dmp"));
    const std::string other = "1" + kStem.substr(1);
    leaveFile(other + ".dmp", kDump);
    std::filesystem::create_symlink(secret, pathOf(other + ".params"));
    expectUntouched();
    EXPECT_EQ("a\n1\n", readFile(secret));
}

TEST_F(LeftoversTest, APipeIsNoReport) {
    leaveFile(kStem + ".dmp", kDump);
    EXPECT_EQ(0, mkfifo(pathOf(kStem + ".params").c_str(), 0600));
    const std::string other = "1" + kStem.substr(1);
    leaveFile(other + ".params", "a\n1\n");
    EXPECT_EQ(0, mkfifo(pathOf(other + ".dmp").c_str(), 0600));
    expectUntouched();
}

TEST_F(LeftoversTest, EachIsJudgedByItself) {
    const std::string odd = "1" + kStem.substr(1);
    const std::string second = "2" + kStem.substr(1);
    leavePair(kStem, "a\n1\n");
    leavePair(odd, "a\n");
    leavePair(second, "b\n2\n");
    leaveFile("lone.params", "c\n3\n");
    EXPECT_THAT(serve(2), Contains(kOddLines));
    EXPECT_THAT(crashFiles(), ElementsAre("lone.params"));

    std::map<std::string, Fields> sent;
    for (const ReceivedRequest& report : reports(2))
        sent[stemOf(dumpNameOf(report))] = annotationsOf(report);
    EXPECT_THAT(sent, ElementsAre(Pair(kStem, ElementsAre(Pair("a", "1"))),
                                  Pair(second, ElementsAre(Pair("b", "2")))));
}

TEST_F(LeftoversTest, AFileInPlaceOfTheDirectoryIsNoneAndTheServerServes) {
    std::filesystem::create_directory(directory() + "/vantor");
    writeFile(crashDirectory(), "");
    const auto application = startGuarded();
    EXPECT_EQ("signal 11", application->crash());
    EXPECT_EQ("exit 0", application->serverEnd());
    EXPECT_THAT(lines(), ElementsAre(newClient(application->pid()), clientExited(application->pid())));
}

} // namespace

} // namespace vantor::test
