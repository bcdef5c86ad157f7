#include "tests/support/crash_server_test.h"
#include "tests/support/messages.h"

#include <chrono>

namespace vantor::test {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;

const std::string kAllOnes(8, '\xff'); // a word that cannot be read

class AnnotationsTest : public CrashServerTest {
protected:
    /// Crashes a child of an application and ends that when the report has arrived.
    void reportCrash(Application& application) {
        m_child = application.inChild("crash segmentation-fault");
        EXPECT_EQ("signal 11", m_child.end);
        awaitUploads(1);
        endQuietly(application);
    }

    /// What arrives of these annotations.
    Fields arrived(const std::vector<ClientRecord>& records) {
        const auto application = startGuarded();
        application->annotate(records);
        reportCrash(*application);
        EXPECT_THAT(lines(), Not(Contains(kNoCustomData)));
        return annotationsOf(onlyReport());
    }

    /// Crashes with annotations that end in a complaint, and expects nothing to stay and nothing to arrive.
    void expectRejected(const std::vector<ClientRecord>& records, const std::string& complaint) {
        const auto application = startGuarded();
        application->annotate(records);
        m_child = application->inChild("crash segmentation-fault");
        EXPECT_EQ("signal 11", m_child.end);
        endQuietly(*application);
        EXPECT_THAT(lines(), ElementsAre(newClient(application->pid()), testing::HasSubstr("Crash!"),
                                         complaint, clientExited(application->pid())));
        EXPECT_THAT(crashFiles(), IsEmpty());
        EXPECT_THAT(collector().requests(), IsEmpty());
    }

    Application::Child m_child = {};
};

TEST_F(AnnotationsTest, ArriveAsTheyAre) {
    EXPECT_THAT(arrived({record("product", "sample"), record("version", "1.2.3"), record("a b", " c d ")}),
                ElementsAre(Pair("a b", " c d "), Pair("product", "sample"), Pair("version", "1.2.3")));
}

TEST_F(AnnotationsTest, AreNotNeeded) {
    const auto application = startGuarded();
    reportCrash(*application);
    EXPECT_THAT(lines(), Contains(kNoCustomData));
    EXPECT_THAT(annotationsOf(onlyReport()), IsEmpty());
}

TEST_F(AnnotationsTest, MayBeMany) {
    std::vector<ClientRecord> records;
    Fields expected;
    for (int i = 0; i < 300; ++i) {
        const std::string name = "name " + std::to_string(i);
        const std::string value(static_cast<size_t>(i % 255 + 1), 'v');
        records.push_back(record(name, value));
        expected[name] = value;
    }
    EXPECT_EQ(expected, arrived(records));
}

TEST_F(AnnotationsTest, ComeWithTheReportsNameAndTime) {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    (void)arrived({record("product", "sample")});
    const auto until = std::chrono::system_clock::now().time_since_epoch();

    const ReceivedRequest report = onlyReport();
    Fields fields = fieldsOf(report);
    EXPECT_EQ(stemOf(dumpNameOf(report)), fields["guid"]);
    EXPECT_EQ(36u, fields["guid"].size());
    EXPECT_EQ(19u, fields["time"].size());
    const std::chrono::nanoseconds time(std::stoll(fields["time"]));
    EXPECT_LE(since, time);
    EXPECT_GE(until, time);
}

TEST_F(AnnotationsTest, TheLaterOfTwoWithOneNameWins) {
    EXPECT_THAT(arrived({record("a", "1"), record("b", "x"), record("a", "2")}),
                ElementsAre(Pair("a", "2"), Pair("b", "x")));
}

TEST_F(AnnotationsTest, AreWrittenInTheOrderOfTheirNames) {
    collector().setAnswer([this](const ReceivedRequest& report) {
        const std::string time = fieldsOf(report)["time"];
        EXPECT_EQ("a\n1\nb\n2\ntime\n" + time + "\n",
                  readFile(pathOf(stemOf(dumpNameOf(report)) + ".params")));
        return Answer();
    });
    (void)arrived({record("b", "2"), record("a", "1")});
}

TEST_F(AnnotationsTest, AreNoTextsToTheServer) {
    const std::string bytes = "\t\x01\x7f\x80\xff \xc3\xa4\xe2\x82\xac";
    EXPECT_THAT(arrived({record("n" + bytes, "v" + bytes), record("a", "--\r\"")}),
                ElementsAre(Pair("a", "--\r\""), Pair("n" + bytes, "v" + bytes)));
}

// A form has no other way to carry them.
TEST_F(AnnotationsTest, QuotesAndLineEndsInNamesArriveAsInAnyForm) {
    EXPECT_THAT(arrived({record("\"; filename=\"x\r", "1")}),
                ElementsAre(Pair("%22; filename=%22x%0D", "1")));
}

TEST_F(AnnotationsTest, AnEmptyOneIsLeftOut) {
    EXPECT_THAT(arrived({record("", ""), record("empty", ""), record("", "value"), record("a", "1")}),
                ElementsAre(Pair("a", "1")));
}

TEST_F(AnnotationsTest, ANameWithoutEndRunsOnIntoItsValue) {
    const std::string name(64, 'n');
    EXPECT_THAT(arrived({record(name, "value"), record("a", "1")}),
                ElementsAre(Pair("a", "1"), Pair(name + "value", "value")));
}

TEST_F(AnnotationsTest, AValueWithoutEndRunsOnIntoTheNextName) {
    const std::string value(256, 'v');
    EXPECT_THAT(arrived({record("a", value), record("b", "2")}),
                ElementsAre(Pair("a", value + "b"), Pair("b", "2")));
}

TEST_F(AnnotationsTest, AValueWithoutEndEndsWithTheRecords) {
    const std::string value(256, 'v');
    EXPECT_THAT(arrived({record("a", value)}), ElementsAre(Pair("a", value)));
}

TEST_F(AnnotationsTest, WhatCannotBeReadIsAllOnesInWholeWords) {
    const auto application = startGuarded();
    // The last word that is begun lacks its second half.
    const std::string cut = bytesOf({record("a", "1"), record("b", "12345678abcd")}).substr(0, 320 + 64 + 12);
    application->tell("load " + application->store(cut));
    application->tell("count 2");
    reportCrash(*application);

    std::string value = "12345678";
    while (value.size() < 256)
        value += kAllOnes;
    EXPECT_THAT(annotationsOf(onlyReport()), ElementsAre(Pair("a", "1"), Pair("b", value)));
}

TEST_F(AnnotationsTest, TheReservedBytesMeanNothing) {
    const auto application = startGuarded();
    application->annotate({record("a", "1"), record("b", "2")});
    application->tell("reserved ffffffff");
    reportCrash(*application);
    EXPECT_THAT(annotationsOf(onlyReport()), ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST_F(AnnotationsTest, ACountOfZeroIsNone) {
    const auto application = startGuarded();
    application->annotate({record("a", "1")});
    application->tell("count 0");
    reportCrash(*application);
    EXPECT_THAT(lines(), Contains(kNoCustomData));
    EXPECT_THAT(annotationsOf(onlyReport()), IsEmpty());
}

TEST_F(AnnotationsTest, RecordsAtAddressZeroAreNone) {
    const auto application = startGuarded();
    application->tell("count 3");
    application->tell("records 0");
    reportCrash(*application);
    EXPECT_THAT(lines(), Contains(kNoCustomData));
    EXPECT_THAT(annotationsOf(onlyReport()), IsEmpty());
}

TEST_F(AnnotationsTest, AnAddressOfZeroIsNoneWithoutAWord) {
    const auto application = startApplication();
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    application->tell("announce-address 0");
    application->guard();
    application->annotate({record("a", "1")});
    reportCrash(*application);
    EXPECT_THAT(lines(), Not(Contains(kNoCustomData)));
    EXPECT_THAT(annotationsOf(onlyReport()), IsEmpty());
}

TEST_F(AnnotationsTest, AnAddressAtTheTopOfMemoryIsNone) {
    const auto application = startApplication();
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    application->tell("announce-address fffffffffffffff0");
    application->guard();
    reportCrash(*application);
    EXPECT_THAT(lines(), Contains(kNoCustomData));
    EXPECT_THAT(annotationsOf(onlyReport()), IsEmpty());
}

TEST_F(AnnotationsTest, AreReadFromTheClientThatCrashed) {
    const auto application = startGuarded();
    application->annotate({record("who", "parent")});
    const std::string path = application->store(bytesOf({record("who", "child")}));
    const Application::Child child = application->inChild("load " + path + ";crash segmentation-fault");
    awaitUploads(1);
    endQuietly(*application);

    const ReceivedRequest report = onlyReport();
    EXPECT_THAT(annotationsOf(report), ElementsAre(Pair("who", "child")));
    EXPECT_THAT(lines(), Contains(crashed(child.pid, pathOf(dumpNameOf(report)))));
}

TEST_F(AnnotationsTest, AreThoseOfTheMomentOfTheCrash) {
    const auto application = startGuarded();
    application->annotate({record("state", "starting"), record("left", "alone")});
    application->annotate({record("state", "running")});
    reportCrash(*application);
    EXPECT_THAT(annotationsOf(onlyReport()), ElementsAre(Pair("state", "running")));
}

TEST_F(AnnotationsTest, OneNamedTimeIsReplaced) {
    (void)arrived({record("time", "noon")});
    EXPECT_EQ(19u, fieldsOf(onlyReport())["time"].size());
}

TEST_F(AnnotationsTest, OneNamedGuidReplacesTheReportsName) {
    (void)arrived({record("guid", "of my own")});
    const ReceivedRequest report = onlyReport();
    EXPECT_EQ("of my own", fieldsOf(report)["guid"]);
    EXPECT_THAT(lines(), Contains(stackTrace(stemOf(dumpNameOf(report)))));
}

TEST_F(AnnotationsTest, InteractiveIsAnAnnotationAsAnyOther) {
    EXPECT_THAT(arrived({record("interactive", "1")}), ElementsAre(Pair("interactive", "1")));
}

TEST_F(AnnotationsTest, OneLineFeedIsAnOddLineTooMany) {
    expectRejected({record("a", "1\n2"), record("b", "3")}, kOddLines);
}

TEST_F(AnnotationsTest, TwoLineFeedsShiftNamesAndValues) {
    EXPECT_THAT(arrived({record("a", "1\n2"), record("b", "3\n4")}),
                ElementsAre(Pair("2", "b"), Pair("3", "4"), Pair("a", "1")));
}

TEST_F(AnnotationsTest, ANameThatRunsOnTooFarRejectsTheReport) {
    expectRejected({record(std::string(64, 'n'), std::string(65, 'v'))}, kTooLong);
}

TEST_F(AnnotationsTest, TooManyBytesRejectTheReport) {
    std::vector<ClientRecord> records;
    for (int i = 0; i < 400; ++i)
        records.push_back(record("name " + std::to_string(i), std::string(255, 'v')));
    expectRejected(records, kEnormous);
}

TEST_F(AnnotationsTest, DisableUploadDeletesTheDump) {
    const auto application = startGuarded();
    application->annotate({record("disable_upload", "1"), record("a", "1")});
    const Application::Child child = application->inChild("crash abort");
    EXPECT_EQ("signal 6", child.end);
    endQuietly(*application);

    EXPECT_THAT(lines(), ElementsAre(newClient(application->pid()), testing::HasSubstr("Crash!"),
                                     uploadIsDisabled(child.pid), clientExited(application->pid())));
    EXPECT_THAT(crashFiles(), IsEmpty());
    EXPECT_EQ(0, collector().connectionsAccepted());
}

TEST_F(AnnotationsTest, DisableUploadMeansTheDigitOneAlone) {
    const auto application = startGuarded();
    size_t crashes = 0;
    for (const char* value : {"0", "true", "yes", "01", " 1", "1 ", ""}) {
        const std::string path = application->store(bytesOf({record("disable_upload", value)}));
        EXPECT_EQ("signal 6", application->inChild("load " + path + ";crash abort").end);
        awaitUploads(++crashes);
    }
    endQuietly(*application);
    EXPECT_THAT(collector().requests(), testing::SizeIs(7));
}

} // namespace

} // namespace vantor::test
