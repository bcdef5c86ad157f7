#pragma once

#include "common/http_uploader.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vantor {

/// Where uploads go, and how: the same for all uploads of one HttpUploader.
struct HttpEndpoint {
    std::string url;
    std::vector<std::string> headers;
    bool keep_body = false;
};

/// One upload, as it waits and while it is sent.
struct HttpUpload {
    std::map<std::string, std::shared_ptr<File>> files;
    std::map<std::string, std::string> params;
    std::function<void(const HttpUploader::UploadResponse&)> on_complete;
};

/// What HttpUploader::UploadResponse::error says of an upload that was not sent to its end.
inline constexpr int32_t kUploaderUnavailable = 2; // CURLE_FAILED_INIT
inline constexpr int32_t kUploadUnreadable = 26;   // CURLE_READ_ERROR
inline constexpr int32_t kUploadTimedOut = 28;     // CURLE_OPERATION_TIMEDOUT
inline constexpr int32_t kUploaderDestroyed = 42;  // CURLE_ABORTED_BY_CALLBACK

/// Completes an upload that was not sent.
void failUpload(const HttpUpload& upload, int32_t error);

/// The transfers that are under way at one time, over libcurl. Made when there is something to send and
/// destroyed when all is sent: connections and what they hold in memory live no longer than that.
///
/// One thread uses an object, wakeUp() excepted.
class HttpTransfers {
public:
    /// `endpoint` must outlive the object. Loads libcurl if need be.
    /// `on_server_silent` is called by run() when as many transfers as there are connections have passed
    /// their limits in a row, before the last of them is completed: the server is not there, or as good as
    /// not.
    HttpTransfers(const HttpEndpoint& endpoint, const std::function<void()>& on_server_silent);
    /// Completes the transfers under way with kUploaderDestroyed.
    ~HttpTransfers();
    HttpTransfers(const HttpTransfers&) = delete;
    HttpTransfers& operator=(const HttpTransfers&) = delete;

    /// Whether libcurl could be loaded, and works. If not, nothing can be started.
    bool isUsable() const;
    /// Whether one more may be started now.
    bool hasRoom() const;
    bool isEmpty() const;
    /// Starts one; an upload that cannot be started is completed with an error at once.
    void start(HttpUpload upload);
    /// Waits until the network, a limit or wakeUp() has work for us, does it, and completes the uploads that
    /// ended.
    void run();
    /// Ends the wait of run(). Any thread.
    void wakeUp();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace vantor
