#pragma once

#include "common/file.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vantor {

/// Uploads forms over HTTPS in the background.
///
/// One thread does all the work, at a low priority. It starts with the first upload; uploads wait in a queue
/// of any length, in which each is no more than a description, and a few go on at a time, over connections
/// that are reused. Files are read in pieces while they are sent. When several transfers in a row pass their
/// limits, what is queued behind them fails at once: each would wait for as long.
///
/// The server's certificate and name are always verified, by the machine's certificate authorities or by
/// those in the file that the environment variable SSL_CERT_FILE names. TLS 1.2 is the least that is spoken,
/// redirects are not followed, and proxies are those that getProxyConfiguration() tells of. Limits: see
/// http_uploader_limits.h.
///
/// Threads: upload() and waitUploadsComplete() may be called from any thread. Completions run one after the
/// other on the upload thread, and no lock of the uploader is held meanwhile.
class HttpUploader {
public:
    enum class Method {
        PostForm = 0, ///< POST of a multipart/form-data body
    };

    /// What became of an upload.
    struct UploadResponse {
        /// The files of the request under their form names, the same objects.
        std::map<std::string, std::shared_ptr<File>> files;
        /// The status that the server answered; 0 when it did not answer.
        int32_t http_status = 0;
        /// The answer's body, if it was asked for: 64 KiB of it at most.
        std::string body;
        /// 0: the server accepted the upload (a status of 2xx). From 100 up: the status with which it did
        /// not. Between: libcurl's code for what went wrong on the way, such as 6 for a host that is not
        /// known, 7 for one that refuses the connection, 28 for a limit that passed, 60 for a certificate
        /// that is not trusted, 42 when the uploader was destroyed first, and 2 when libcurl cannot be
        /// loaded.
        int32_t error = 0;
    };

    /// Prepares uploads to `url`, which must be an https one. Sends nothing and starts nothing.
    /// `headers`: further lines for every request's header ("Name: value").
    /// `keep_body`: the answers' bodies are kept for the completions.
    HttpUploader(const std::string& url, Method method, const std::vector<std::string>& headers,
                 bool keep_body);
    /// Completes whatever is queued or under way with an error. No completion runs afterwards. Not to be
    /// called from a completion.
    ~HttpUploader();
    HttpUploader(const HttpUploader&) = delete;
    HttpUploader& operator=(const HttpUploader&) = delete;

    /// Queues one upload and returns at once. The form's parts are the `params` in their order, byte for
    /// byte, then the `files`, each under its form name and with the base name of its path as file name. The
    /// files must stay open, and nobody else may use them, until `on_complete` has been called.
    ///
    /// `on_complete` is called exactly once, on another thread than the caller's. When no thread can be
    /// started now, that is the thread that can be had next (see Thread), the destroying one at the latest.
    void upload(const std::map<std::string, std::shared_ptr<File>>& files,
                std::map<std::string, std::string> params,
                const std::function<void(const UploadResponse&)>& on_complete);

    /// While one lives, uploads are queued and none is begun: for whoever has many to queue and somebody who
    /// waits for that. The uploader must outlive it.
    class ScopedHold {
    public:
        explicit ScopedHold(HttpUploader& uploader);
        ~ScopedHold();
        ScopedHold(const ScopedHold&) = delete;
        ScopedHold& operator=(const ScopedHold&) = delete;

    private:
        HttpUploader& m_uploader;
    };

    /// Blocks until every upload so far has been completed and its completion has returned. Not to be called
    /// from a completion.
    void waitUploadsComplete();

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl; // shared with the worker
};

} // namespace vantor
