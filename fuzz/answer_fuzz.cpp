// A collection server that answers anything: each upload is completed once, and a report counts as arrived
// only if a status of 2xx stood in the answer. Over real TLS, which makes it the slowest of the targets.

#include "common/http_uploader.h"
#include "fuzz/require.h"
#include "tests/support/certificates.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/tls_server.h"

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <string>

using namespace vantor;

namespace {

/// A trusted server on the loopback, and an uploader to it.
class World {
public:
    World() {
        setenv("SSL_CERT_FILE", m_authority.certificateFile().c_str(), 1);
        setenv("no_proxy", "*", 1);
        test::writeFile(m_directory / "report.dmp", "MDMP");
        const test::CertificateFiles files = m_authority.issue("server");
        test::TlsServer::Options options;
        options.certificate_file = files.certificate;
        options.key_file = files.key;
        m_server = std::make_unique<test::TlsServer>(options);
        m_uploader = std::make_unique<HttpUploader>(m_server->url(), HttpUploader::Method::PostForm,
                                                    std::vector<std::string>(), true);
    }

    /// The error of an upload that is answered by these bytes.
    int32_t errorOf(const std::string& answer) {
        m_server->setAnswer([answer](const test::ReceivedRequest&) { return test::Answer::raw(answer); });
        std::atomic<int> completions = 0;
        std::atomic<int32_t> error = 0;
        m_uploader->upload({{"crash", File::open(m_directory / "report.dmp", "r", true)}}, {{"guid", "g"}},
                           [&](const HttpUploader::UploadResponse& response) {
                               error = response.error;
                               ++completions;
                           });
        m_uploader->waitUploadsComplete();
        require(completions == 1);
        return error;
    }

private:
    test::TemporaryDirectory m_directory;
    const test::CertificateAuthority m_authority = test::CertificateAuthority(m_directory.path());
    std::unique_ptr<test::TlsServer> m_server;
    std::unique_ptr<HttpUploader> m_uploader;
};

/// Whether some line of the answer may be a status line of 2xx.
bool hasStatusOfSuccess(const std::string& answer) {
    for (size_t start = answer.find("HTTP/"); start != answer.npos; start = answer.find("HTTP/", start + 1)) {
        const std::string line = answer.substr(start, answer.find('\n', start) - start);
        for (size_t digit = line.find('2'); digit != line.npos; digit = line.find('2', digit + 1)) {
            if (digit + 2 < line.size() && isdigit(line[digit + 1]) != 0 && isdigit(line[digit + 2]) != 0)
                return true;
        }
    }
    return false;
}

} // namespace

/// The server's threads come and go, and hold memory that a check in between finds nowhere.
extern "C" const char* __lsan_default_options() { // NOLINT: the sanitizer's name
    return "detect_leaks=0";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static World world;
    const std::string answer(data, data + size);
    if (world.errorOf(answer) == 0)
        require(hasStatusOfSuccess(answer));
    return 0;
}
