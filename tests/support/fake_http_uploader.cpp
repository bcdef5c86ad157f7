#include "tests/support/fake_http_uploader.h"

#include <thread>

namespace vantor {

struct HttpUploader::Impl {};

HttpUploader::HttpUploader(const std::string& url, Method method, const std::vector<std::string>& headers,
                           bool keep_body) {
    test::FakeHttpUploader& fake = test::FakeHttpUploader::instance();
    fake.url = url;
    fake.method = method;
    fake.headers = headers;
    fake.keep_body = keep_body;
}

HttpUploader::~HttpUploader() {
    if (const auto& on_destroy = test::FakeHttpUploader::instance().on_destroy)
        on_destroy();
}

void HttpUploader::upload(const std::map<std::string, std::shared_ptr<File>>& files,
                          std::map<std::string, std::string> params,
                          const std::function<void(const UploadResponse&)>& on_complete) {
    test::FakeHttpUploader& fake = test::FakeHttpUploader::instance();
    fake.held_uploads += fake.holds > 0 ? 1 : 0;
    fake.uploads.push_back({files, std::move(params), on_complete});
}

HttpUploader::ScopedHold::ScopedHold(HttpUploader& uploader) : m_uploader(uploader) {
    ++test::FakeHttpUploader::instance().holds;
}

HttpUploader::ScopedHold::~ScopedHold() {
    --test::FakeHttpUploader::instance().holds;
}

void HttpUploader::waitUploadsComplete() {
    test::FakeHttpUploader::instance().was_waited_for = true;
}

namespace test {

void FakeHttpUploader::complete(size_t upload, int32_t error) const {
    HttpUploader::UploadResponse response;
    response.files = uploads.at(upload).files;
    response.error = error;
    completeWith(upload, response);
}

void FakeHttpUploader::completeWith(size_t upload, const HttpUploader::UploadResponse& response) const {
    std::thread([&] { uploads.at(upload).on_complete(response); }).join();
}

FakeHttpUploader& FakeHttpUploader::instance() {
    static FakeHttpUploader fake;
    return fake;
}

} // namespace test
} // namespace vantor
