#pragma once

#include "common/file.h"
#include "common/http_uploader.h"
#include "common/mutex.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace vantor::crash {

/// Sends crash reports to the collection server and keeps count of the uploads that are pending.
///
/// A report that arrived is deleted, and a link to its stack trace is printed. One that could not be sent
/// stays on disk until the next CrashUploader over the same directory finds it; within a run nothing is sent
/// twice.
///
/// Owned by CrashHandler, and outlives every completion: its destructor lets none run afterwards.
///
/// Threads: addCrash() comes from the thread that delivers dumps, isDone() from the one that waits for the
/// end, both with the handler's lock held; onUploadComplete() from the upload thread.
///
/// Locks: m_mutex guards the count, and makes the start of an upload and the handling of a completion exclude
/// each other. The order is handler, then uploader: a completion calls `done`, which takes the handler's
/// lock, before it takes m_mutex.
class CrashUploader {
public:
    /// Sends every report that an earlier run left in `crashDir`. A directory that is missing or cannot be
    /// read holds none; a file without its partner is left alone, and so is a pair for which there are no
    /// descriptors left.
    explicit CrashUploader(const std::string& crashDir);
    /// Does not wait for pending uploads: they complete with an error.
    ~CrashUploader();
    CrashUploader(const CrashUploader&) = delete;
    CrashUploader& operator=(const CrashUploader&) = delete;

    /// Writes the parameters file, with "time" added, beside a fresh dump and sends the pair. When either
    /// file cannot be opened the other is deleted. `done` is called exactly once, on the upload thread, when
    /// the upload has succeeded or failed, and never for a report that is rejected.
    void addCrash(const std::string& dumpPath, const std::map<std::string, std::string>& params,
                  const std::function<void()>& done);

    /// Checks a pair of open files, and sends it or deletes it with a message that says why. Neither pointer
    /// is null; the parameters file can be read. `done` as above; it may be empty.
    void addCrash(const std::shared_ptr<File>& dump, const std::shared_ptr<File>& paramsFile,
                  const std::function<void()>& done);

    /// The completion of one upload.
    void onUploadComplete(const HttpUploader::UploadResponse& response,
                          const std::shared_ptr<File>& paramsFile, const std::function<void()>& done)
        VANTOR_EXCLUDES(m_mutex);

    /// True when no upload is pending. An upload is so until its completion is over, `done` included.
    bool isDone() VANTOR_EXCLUDES(m_mutex);

    /// Blocks until no upload is under way.
    void waitDone();

    /// Closes and deletes a report, the parameters file first. Null pointers are skipped.
    void deleteFiles(const std::shared_ptr<File>& dump, const std::shared_ptr<File>& paramsFile);

private:
    void sendLeftOvers(const std::string& crash_dir);
    void startUpload(const std::shared_ptr<File>& dump, const std::shared_ptr<File>& params_file,
                     std::map<std::string, std::string> upload_params, const std::function<void()>& done)
        VANTOR_EXCLUDES(m_mutex);
    void settle(const HttpUploader::UploadResponse& response, const std::shared_ptr<File>& params_file)
        VANTOR_REQUIRES(m_mutex);

    std::shared_ptr<HttpUploader> m_uploader;
    Mutex m_mutex;
    int32_t m_pending_uploads VANTOR_GUARDED_BY(m_mutex) = 0;
};

} // namespace vantor::crash
