#pragma once

#include "common/http_uploader.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vantor::test {

/// One upload that the stand-in was asked for.
struct FakeUpload {
    std::map<std::string, std::shared_ptr<File>> files;
    std::map<std::string, std::string> params;
    std::function<void(const HttpUploader::UploadResponse&)> on_complete;
};

/// What the stand-in for HttpUploader saw and does. A program that links fake_http_uploader.cpp has no other
/// HttpUploader: it sends nothing, and each upload is completed when the test says so. One uploader lives at
/// a time.
struct FakeHttpUploader {
    std::string url;
    HttpUploader::Method method = HttpUploader::Method::PostForm;
    std::vector<std::string> headers;
    bool keep_body = true;
    std::vector<FakeUpload> uploads;
    int holds = 0;           ///< how many live
    size_t held_uploads = 0; ///< those of `uploads` that were queued meanwhile
    bool was_waited_for = false;
    std::function<void()> on_destroy; ///< called by the destructor; may be empty

    /// Completes an upload with this error on a thread of its own, and waits until the completion has
    /// returned.
    void complete(size_t upload, int32_t error) const;
    /// The same with a response that the test made.
    void completeWith(size_t upload, const HttpUploader::UploadResponse& response) const;

    /// The state of the uploader that was made last.
    static FakeHttpUploader& instance();
};

} // namespace vantor::test
