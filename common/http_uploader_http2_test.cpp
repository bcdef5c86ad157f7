// Uploads over HTTP/2, to a server that we did not write: nghttpd, which sends every body back.

#include "common/http_uploader.h"

#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/multipart.h"
#include "tests/support/upload_fixture.h"

#include <gmock/gmock.h>
#include <regex>
#include <set>

namespace vantor {
namespace {

using test::CertificateFiles;
using test::Completions;
using test::FormPart;
using testing::SizeIs;
using UploadResponse = HttpUploader::UploadResponse;

/// nghttpd, on a port of the test's own network. It answers every POST with the body that it received, and
/// logs every frame.
class EchoServer {
public:
    EchoServer(const CertificateFiles& files, const std::string& directory)
        : m_log(directory + "/nghttpd.log"),
          m_server({"sh", "-c",
                    "exec /usr/sbin/nghttpd --verbose --echo-upload --address=127.0.0.1 8444 " + files.key +
                        " " + files.certificate + " >" + m_log + " 2>&1"}) {
        EXPECT_TRUE(test::eventually([this] { return log().find(": listen ") != std::string::npos; }))
            << log();
    }

    static std::string url() { return "https://localhost:8444/upload/"; }
    std::string log() const { return test::readFile(m_log); }

    /// For each HTTP/2 request, the connection that it came over.
    std::vector<int> connectionsOfRequests() const {
        static const std::regex kRequest(R"(\[id=(\d+)\][^\n]* recv \(stream_id=\d+\) :method: POST)");
        const std::string text = log();
        std::vector<int> connections;
        for (std::sregex_iterator request(text.begin(), text.end(), kRequest), end; request != end; ++request)
            connections.push_back(std::stoi((*request)[1]));
        return connections;
    }

private:
    const std::string m_log;
    test::ChildProcess m_server;
};

class HttpUploaderHttp2Test : public test::UploadFixture {
protected:
    /// A file like no other, with what could be taken for the end of a line, a part or a text.
    std::string contentOf(int number) const {
        return "file " + std::to_string(number) + m_content.substr(0, 20'000) +
               std::string("\0\r\n--\r\n", 8);
    }

    std::shared_ptr<File> fileOf(int number) const {
        const std::string path = m_directory / (std::to_string(number) + ".dmp");
        test::writeFile(path, contentOf(number));
        return File::open(path, "r", true);
    }

    static std::string fieldOf(int number) {
        std::string bytes = std::to_string(number) + "--\r\n\r\n";
        for (int byte = 1; byte < 256; ++byte)
            bytes += static_cast<char>(byte);
        return bytes;
    }

    /// The form that the server received, by what it sent back. Its boundary is the first line.
    static std::vector<FormPart> echoedForm(const UploadResponse& response) {
        const std::string boundary = response.body.substr(0, response.body.find("\r\n"));
        EXPECT_THAT(boundary, testing::StartsWith("--"));
        const std::string type =
            "multipart/form-data; boundary=" + boundary.substr(std::min<size_t>(boundary.size(), 2));
        return test::parseMultipart(type, response.body).value_or(std::vector<FormPart>());
    }

    void expectEcho(int number, const UploadResponse& response) const {
        EXPECT_EQ(response.error, 0);
        EXPECT_EQ(response.http_status, 200);
        const std::vector<FormPart> form = echoedForm(response);
        ASSERT_THAT(form, SizeIs(2)) << response.body.substr(0, 1000);
        EXPECT_EQ(form[0].name, "field");
        EXPECT_EQ(form[0].body, fieldOf(number));
        EXPECT_EQ(form[1].name, "crash");
        EXPECT_EQ(form[1].filename, std::to_string(number) + ".dmp");
        EXPECT_EQ(form[1].content_type, "application/octet-stream");
        EXPECT_EQ(form[1].body, contentOf(number));
    }

    const EchoServer m_echo = EchoServer(m_authority.issue("server"), m_directory.path());
};

TEST_F(HttpUploaderHttp2Test, ManyFormsAtOnceShareAFewConnections) {
    constexpr int kForms = 20;
    std::vector<Completions> completions(kForms);
    HttpUploader uploader(EchoServer::url(), HttpUploader::Method::PostForm, {}, true);
    for (int i = 0; i < kForms; ++i)
        uploader.upload({{"crash", fileOf(i)}}, {{"field", fieldOf(i)}},
                        completions[static_cast<size_t>(i)].callback());
    uploader.waitUploadsComplete();

    for (int i = 0; i < kForms; ++i) {
        const auto responses = completions[static_cast<size_t>(i)].responses();
        ASSERT_THAT(responses, SizeIs(1));
        expectEcho(i, responses[0]);
    }
    const std::vector<int> connections = m_echo.connectionsOfRequests();
    EXPECT_THAT(connections, SizeIs(kForms)) << m_echo.log();
    EXPECT_THAT(std::set<int>(connections.begin(), connections.end()), SizeIs(testing::Le(6U)));
}

} // namespace
} // namespace vantor
