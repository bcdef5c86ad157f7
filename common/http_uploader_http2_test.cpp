// Uploads over HTTP/2: to a server that we did not write, nghttpd, which sends every body back, and to one
// that lets no body come to its end.

#include "common/http_uploader.h"

#include "common/broken_pipe.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/loopback_listener.h"
#include "tests/support/multipart.h"
#include "tests/support/tls_stream.h"
#include "tests/support/upload_fixture.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <gmock/gmock.h>
#include <poll.h>
#include <regex>
#include <set>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>

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

/// Speaks just enough HTTP/2 to be sent a body, and never allows more than the 65,535 bytes of it that need
/// no permission.
class HaltingServer {
public:
    explicit HaltingServer(const CertificateFiles& files) {
        test::requireOpenssl(
            SSL_CTX_use_certificate_chain_file(m_context.get(), files.certificate.c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(m_context.get(), files.key.c_str(), SSL_FILETYPE_PEM) == 1,
            "use the certificate");
        SSL_CTX_set_alpn_select_cb(m_context.get(), chooseHttp2, nullptr);
        m_thread = std::thread([this] { serve(); });
    }
    ~HaltingServer() {
        (void)eventfd_write(m_stop.get(), 1);
        m_thread.join();
    }
    HaltingServer(const HaltingServer&) = delete;
    HaltingServer& operator=(const HaltingServer&) = delete;

    std::string url() const { return "https://localhost:" + std::to_string(m_listener.port()) + "/upload/"; }
    bool hasAllItAllows() const { return m_received > 65'535; }

private:
    static int chooseHttp2(SSL*, const unsigned char** chosen, unsigned char* length,
                           const unsigned char* offered, unsigned int offered_length, void*) {
        static constexpr unsigned char kHttp2[] = {2, 'h', '2'};
        auto* out = const_cast<unsigned char**>(chosen);
        return SSL_select_next_proto(out, length, kHttp2, sizeof(kHttp2), offered, offered_length) ==
                       OPENSSL_NPN_NEGOTIATED
                   ? SSL_TLSEXT_ERR_OK
                   : SSL_TLSEXT_ERR_ALERT_FATAL;
    }

    void serve() {
        blockBrokenPipeSignal();
        int client = -1;
        while (client == -1) {
            std::vector<pollfd> awaited = {{m_stop.get(), POLLIN, 0}};
            for (const test::Descriptor& socket : m_listener.sockets())
                awaited.push_back({socket.get(), POLLIN, 0});
            (void)poll(awaited.data(), awaited.size(), -1);
            if (awaited[0].revents != 0)
                return;
            for (const test::Descriptor& socket : m_listener.sockets())
                client = client == -1 ? accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)
                                      : client;
        }

        constexpr std::string_view kEmptySettings("\0\0\0\x04\0\0\0\0\0", 9);
        test::TlsStream stream(m_context.get(), test::Descriptor(client), m_stop.get());
        char buffer[4096];
        bool is_alive = stream.handshake() && stream.write(kEmptySettings);
        while (is_alive) {
            const size_t length = stream.read(buffer, sizeof(buffer));
            m_received += length;
            is_alive = length > 0;
        }
    }

    const test::OpensslContext m_context = test::OpensslContext(SSL_CTX_new(TLS_server_method()));
    const test::Descriptor m_stop = test::Descriptor(eventfd(0, EFD_CLOEXEC));
    const test::LoopbackListener m_listener = test::LoopbackListener(0);
    std::atomic<size_t> m_received = 0;
    std::thread m_thread;
};

/// Of all threads of the process.
std::chrono::nanoseconds processorTime() {
    timespec time = {};
    EXPECT_EQ(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time), 0);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

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
    EXPECT_THAT(std::set<int>(connections.begin(), connections.end()), SizeIs(testing::Le(8U)));
}

TEST_F(HttpUploaderHttp2Test, ABodyThatWaitsForTheServersLeaveTakesNoProcessorTime) {
    const HaltingServer server(m_authority.issue("halting"));
    Completions completions;
    {
        HttpUploader uploader(server.url(), HttpUploader::Method::PostForm, {}, false);
        uploader.upload({{"crash", file()}}, {}, completions.callback());
        ASSERT_TRUE(test::eventually([&] { return server.hasAllItAllows(); }));

        const auto begin = std::chrono::steady_clock::now();
        const auto used_before = processorTime();
        std::this_thread::sleep_for(std::chrono::milliseconds(300)); // what is measured
        EXPECT_LT(processorTime() - used_before, (std::chrono::steady_clock::now() - begin) / 4);
    }
    ASSERT_THAT(completions.responses(), SizeIs(1));
    EXPECT_EQ(completions.responses()[0].error, 42);
}

} // namespace
} // namespace vantor
