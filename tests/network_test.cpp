#include "tests/support/crash_server_test.h"
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
    {"AnswersRubbish", [](auto&, auto&) { return answering(Answer::raw("\x16rubbish\r\n\r\n")); }},
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

} // namespace

} // namespace vantor::test
