#pragma once

#include "common/http_uploader.h"
#include "common/mutex.h"
#include "tests/support/certificates.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/tls_server.h"

#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace vantor::test {

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
inline constexpr ptrdiff_t kSanitizersThreads = 1; // its own, from the first thread of ours on
#define VANTOR_HAS_THREAD_SANITIZER
#endif
#endif
#ifndef VANTOR_HAS_THREAD_SANITIZER
inline constexpr ptrdiff_t kSanitizersThreads = 0;
#endif

/// Collects what completions bring.
class Completions {
public:
    std::function<void(const HttpUploader::UploadResponse&)> callback() {
        return [this](const HttpUploader::UploadResponse& response) {
            MutexLock lock(m_mutex);
            m_responses.push_back(response);
            m_threads.push_back(std::this_thread::get_id());
        };
    }

    std::vector<HttpUploader::UploadResponse> responses() {
        MutexLock lock(m_mutex);
        return m_responses;
    }
    std::vector<std::thread::id> threads() {
        MutexLock lock(m_mutex);
        return m_threads;
    }

private:
    Mutex m_mutex;
    std::vector<HttpUploader::UploadResponse> m_responses VANTOR_GUARDED_BY(m_mutex);
    std::vector<std::thread::id> m_threads VANTOR_GUARDED_BY(m_mutex);
};

/// An HTTPS server that is trusted, a file to send to it, and uploaders.
class UploadFixture : public testing::Test {
protected:
    UploadFixture() {
        for (const char* name :
             {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
            unsetenv(name);
        setenv("SSL_CERT_FILE", m_authority.certificateFile().c_str(), 1);
        writeFile(m_directory / "report.dmp", m_content);
    }
    /// An upload thread whose work is over may still be on its way out, and give back what libraries keep for
    /// each thread: to a sanitizer that looks meanwhile, that is a leak.
    ~UploadFixture() override {
        m_server.reset();
        EXPECT_TRUE(eventually([this] { return liveThreads() <= m_threads_before + kSanitizersThreads; }));
    }

    void startServer(TlsServer::Options options = {}) {
        const CertificateFiles files = m_authority.issue("server");
        options.certificate_file = files.certificate;
        options.key_file = files.key;
        m_server = std::make_unique<TlsServer>(options);
    }

    std::string url() const { return m_server->url() + "/upload/"; }
    std::shared_ptr<File> file() const { return File::open(m_directory / "report.dmp", "r", true); }

    static std::unique_ptr<HttpUploader> uploaderTo(const std::string& url) {
        return std::make_unique<HttpUploader>(url, HttpUploader::Method::PostForm, std::vector<std::string>(),
                                              false);
    }

    /// Uploads one form and waits for what becomes of it.
    HttpUploader::UploadResponse upload(HttpUploader& uploader,
                                        const std::map<std::string, std::string>& params = {}) {
        Completions completions;
        uploader.upload({{"crash", file()}}, params, completions.callback());
        uploader.waitUploadsComplete();
        const auto responses = completions.responses();
        EXPECT_THAT(responses, testing::SizeIs(1));
        return responses.at(0);
    }

    /// A file so large that no socket buffer takes it whole.
    std::shared_ptr<File> largeFile() {
        writeFile(m_directory / "large.dmp", std::string(64 << 20, 'x'));
        return File::open(m_directory / "large.dmp", "r", true);
    }

    HttpUploader::UploadResponse uploadLarge(HttpUploader& uploader) {
        Completions completions;
        uploader.upload({{"crash", largeFile()}}, {}, completions.callback());
        uploader.waitUploadsComplete();
        return completions.responses().at(0);
    }

    int32_t errorWith(TlsServer::Options options) {
        startServer(std::move(options));
        return upload(*uploaderTo(url())).error;
    }

private:
    static ptrdiff_t liveThreads() {
        const std::filesystem::directory_iterator threads("/proc/self/task");
        return std::distance(begin(threads), end(threads));
    }
    const ptrdiff_t m_threads_before = liveThreads();

protected:
    TemporaryDirectory m_directory;
    const CertificateAuthority m_authority = CertificateAuthority(m_directory.path());
    const std::string m_content = std::string("MDMP\0\r\n--\xff", 10) + std::string(200'000, 'x');
    std::unique_ptr<TlsServer> m_server;
};

} // namespace vantor::test
