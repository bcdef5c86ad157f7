#include "tests/support/covered_file.h"
#include "tests/support/crash_server_test.h"
#include "tests/support/library_path.h"
#include "tests/support/messages.h"

#include <functional>
#include <ostream>

namespace vantor::test {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kParams = "product\nsample\n";
const std::string kDump(8'000'000, 'd'); // far more than the buffers of a connection hold

TlsServer::Options answering(const Answer& answer) {
    return {.answer = [answer](const ReceivedRequest&) { return answer; }};
}

TlsServer::Options showing(const CertificateFiles& files) {
    return {.certificate_file = files.certificate, .key_file = files.key};
}

/// What may be wrong with a collection server.
struct Trouble {
    const char* name;
    std::function<TlsServer::Options(const CertificateAuthority& authority, const std::string& directory)>
        make;
};

std::ostream& operator<<(std::ostream& stream, const Trouble& trouble) {
    return stream << trouble.name;
}

const Trouble kTroubles[] = {
    {"NeverSpeaks", [](auto&, auto&) { return TlsServer::Options{.mute = true}; }},
    {"StopsReading", [](auto&, auto&) { return TlsServer::Options{.stall_after_body_bytes = 100'000}; }},
    {"ClosesInTheMiddle", [](auto&, auto&) { return TlsServer::Options{.close_after_body_bytes = 100'000}; }},
    {"IsSilentAfterTheBody", [](auto&, auto&) { return answering(Answer::silence()); }},
    {"ClosesAfterTheBody", [](auto&, auto&) { return answering(Answer::hangUp()); }},
    {"Answers500", [](auto&, auto&) { return answering(Answer::status_code(500, "out of order")); }},
    {"Answers404", [](auto&, auto&) { return answering(Answer::status_code(404)); }},
    {"AcceptsBeforeTheEndAndCloses",
     [](auto&, auto&) {
         return TlsServer::Options{.close_after_body_bytes = 100'000,
                                   .early_answer =
                                       "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n"};
     }},
    {"DoesNotStopAnswering",
     [](auto&, auto&) {
         // Its end would be that of the connection, and it would be an acceptance.
         return answering(Answer::raw("HTTP/1.1 200 OK\r\n\r\n" + std::string(2 << 20, 'y')));
     }},
    {"AnswersRubbish", [](auto&, auto&) { return answering(Answer::raw("\x16rubbish\r\n\r\n")); }},
    {"AnswersWithoutAStatus", [](auto&, auto&) { return answering(Answer::raw("HTTP/x.1 500 No\r\n\r\n")); }},
    {"Redirects",
     [](auto&, auto&) {
         Answer elsewhere = Answer::status_code(302);
         elsewhere.headers = {{"Location", "https://localhost:8443/elsewhere"}};
         return answering(elsewhere);
     }},
    {"ShowsAnUntrustedCertificate",
     [](auto&, auto& directory) {
         return showing(CertificateAuthority(directory, "stranger").issue("untrusted"));
     }},
    {"ShowsAnExpiredCertificate",
     [](auto& authority, auto&) {
         return showing(authority.issue("expired", CertificateAuthority::Flaw::Expired));
     }},
    {"ShowsTheCertificateOfAnotherHost",
     [](auto& authority, auto&) {
         return showing(authority.issue("other", CertificateAuthority::Flaw::OtherHost));
     }},
};

class NetworkTest : public CrashServerTest {
protected:
    /// Starts a server that finds a pair, and expects that it fails to send it.
    void expectFailure() {
        leavePair(kStem, kParams, kDump);
        const auto application = startGuarded(kImpatientCrashServer);
        awaitWords("Failed to upload");
        endQuietly(*application);

        const std::string dump = pathOf(kStem + ".dmp");
        const pid_t pid = application->pid();
        EXPECT_THAT(lines(), testing::UnorderedElementsAre(uploading(dump), newClient(pid),
                                                           failedToUpload(dump), clientExited(pid)));
        EXPECT_THAT(crashFiles(), ElementsAre(kStem + ".dmp", kStem + ".params"));
    }

    /// Starts another server, and expects that it sends what the first could not.
    void expectNextServerSendsIt() {
        openCollector({});
        const auto application = startGuarded();
        awaitUploads(1);
        endQuietly(*application);
        EXPECT_THAT(crashFiles(), IsEmpty());
        EXPECT_EQ(kDump, dumpOf(onlyReport()));
        EXPECT_THAT(annotationsOf(onlyReport()), ElementsAre(testing::Pair("product", "sample")));
    }
};

class TroubleTest : public NetworkTest, public testing::WithParamInterface<Trouble> {};

TEST_P(TroubleTest, CostsThatUploadOnly) {
    openCollector(GetParam().make(authority(), directory()));
    expectFailure();
    EXPECT_LE(collector().requests().size(), 1u);
    expectNextServerSendsIt();
}

INSTANTIATE_TEST_SUITE_P(ACollectorThat, TroubleTest, testing::ValuesIn(kTroubles),
                         [](const auto& trouble) { return trouble.param.name; });

TEST_F(NetworkTest, NoCollectorCostsThatUploadOnly) {
    closeCollector();
    expectFailure();
    expectNextServerSendsIt();
}

/// Three times as many left-overs as there are connections.
class SilenceTest : public NetworkTest {
protected:
    SilenceTest() {
        for (int i = 10; i < 34; ++i) {
            m_stems.push_back(std::to_string(i) + kStem.substr(2));
            leavePair(m_stems.back(), kParams);
        }
    }

    /// A server whose parent dies at once ends all the same, after one round of its limits, and keeps the
    /// pairs.
    void expectEndWithAllPairs() {
        const auto application = startGuarded(kImpatientCrashServer);
        endQuietly(*application);
        const std::vector<std::string> said = lines();
        for (const std::string& stem : m_stems)
            EXPECT_THAT(said, Contains(failedToUpload(pathOf(stem + ".dmp"))).Times(1));
        EXPECT_THAT(crashFiles(), testing::SizeIs(2 * m_stems.size()));
        EXPECT_LE(collector().connectionsAccepted(), 8 + 7); // some are begun before the eighth has failed
    }

    void expectNextServerSendsAll() {
        openCollector({});
        const auto application = startGuarded();
        awaitUploads(m_stems.size());
        endQuietly(*application);
        EXPECT_THAT(crashFiles(), IsEmpty());

        std::vector<std::string> sent;
        for (const ReceivedRequest& report : reports(m_stems.size()))
            sent.push_back(stemOf(dumpNameOf(report)));
        EXPECT_THAT(sent, testing::UnorderedElementsAreArray(m_stems));
    }

    std::vector<std::string> m_stems;
};

TEST_F(SilenceTest, BeforeTheHandShakeOfTlsHoldsUpNobodyForLong) {
    openCollector({.mute = true});
    expectEndWithAllPairs();
    expectNextServerSendsAll();
}

TEST_F(SilenceTest, AfterTheBodyHoldsUpNobodyForLong) {
    openCollector(answering(Answer::silence()));
    expectEndWithAllPairs();
    expectNextServerSendsAll();
}

TEST_F(NetworkTest, TheNextServerSendsWhatAFreshCrashCouldNot) {
    collector().setAnswer([](const ReceivedRequest&) { return Answer::status_code(503); });
    const auto first = startGuarded();
    first->annotate({record("product", "sample")});
    EXPECT_EQ("signal 11", first->crash());
    EXPECT_EQ("exit 0", first->serverEnd());
    const ReceivedRequest failed = onlyReport();
    EXPECT_THAT(lines(), Contains(failedToUpload(pathOf(dumpNameOf(failed)))));

    collector().setAnswer({});
    const auto second = startGuarded();
    awaitUploads(1);
    endQuietly(*second);
    const ReceivedRequest sent = reports(2).back();
    EXPECT_EQ(dumpNameOf(failed), dumpNameOf(sent));
    EXPECT_EQ(dumpOf(failed), dumpOf(sent));
    EXPECT_EQ(fieldsOf(failed), fieldsOf(sent));
    EXPECT_THAT(crashFiles(), IsEmpty());
}

TEST_F(NetworkTest, AMachineWithoutLibcurlKeepsThePairsForOneThatHasIt) {
    {
        const CoveredFile hidden(libraryPath("libcurl.so.4"), "/dev/null");
        const auto application = startGuarded();
        application->annotate({record("product", "sample")});
        for (size_t crash = 1; crash <= 2; ++crash) {
            EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
            awaitWords("Failed to upload", crash);
        }
        endQuietly(*application);
    }
    EXPECT_THAT(
        lines(),
        Contains(testing::StartsWith("Cannot load libcurl.so.4, nothing will be uploaded: ")).Times(1));
    EXPECT_THAT(crashFiles(), testing::SizeIs(4));
    EXPECT_EQ(0, collector().connectionsAccepted());

    const auto application = startGuarded();
    awaitUploads(2);
    endQuietly(*application);
    EXPECT_THAT(crashFiles(), IsEmpty());
    for (const ReceivedRequest& report : reports(2))
        EXPECT_THAT(annotationsOf(report), ElementsAre(testing::Pair("product", "sample")));
}

TEST_F(NetworkTest, ALibcurlThatLacksWhatIsNeededIsAsGoodAsNone) {
    const CoveredFile another(libraryPath("libcurl.so.4"), libraryPath("libz.so.1"));
    leavePair(kStem, kParams);
    endQuietly(*startGuarded());
    EXPECT_THAT(lines(), Contains(testing::AllOf(
                             testing::StartsWith("Cannot load libcurl.so.4, nothing will be uploaded: "),
                             testing::HasSubstr("curl_global_init"))));
    EXPECT_THAT(crashFiles(), testing::SizeIs(2));
}

} // namespace

} // namespace vantor::test
