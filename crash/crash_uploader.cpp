#include "crash/crash_uploader.h"

#include "common/descriptor_limit.h"
#include "common/proxy_configuration.h"
#include "common/standard_error.h"
#include "common/strings.h"
#include "common/time.h"
#include "crash/report_files.h"

#include <cstdio>
#include <ostream>
#include <sstream>
#include <vector>

namespace vantor::crash {

namespace {

constexpr const char* kCollectionUrl = VANTOR_CRASH_COLLECTION_URL;

std::string uploadUrl() {
    return std::string(kCollectionUrl) + "/api/1/upload_crash/";
}

ParamsVerdict readParams(File& params_file, const std::string& stem) {
    const int64_t size = params_file.size();
    if (size > kMostParamsBytes)
        return {"Params file is enormous!\n", {}};

    std::string text;
    (void)params_file.seek(0);
    (void)params_file.read(&text, size); // whatever can be read is judged as it stands
    return judgeParams(text, stem);
}

void announceUpload(const std::string& dump_path) {
    ProxyConfiguration proxy = {.is_used = false, .host = "", .port = 0};
    getProxyConfiguration(&proxy);

    // std::cerr writes every piece that is inserted by itself; the line should stay in one piece.
    std::ostringstream line;
    line << "Uploading " << dump_path << " to the server (probably via " << proxy << " -- there are races)\n";
    standardError() << line.str();
}

void printStackTraceLink(const std::string& stem) {
    fprintf(stderr, "Stack trace: %s/diagnostics/crashes/%c%c/%c%c/%s.stack\n", kCollectionUrl, stem[0],
            stem[1], stem[2], stem[3], stem.c_str());
}

void closeAndRemove(const std::shared_ptr<File>& file) {
    if (!file)
        return;

    (void)file->close();
    (void)File::remove(file->path()); // a report that stays is sent again, which does no harm
}

} // namespace

CrashUploader::CrashUploader(const std::string& crashDir)
    : m_uploader(std::make_shared<HttpUploader>(uploadUrl(), HttpUploader::Method::PostForm,
                                                std::vector<std::string>(), false)) {
    sendLeftOvers(crashDir);
}

CrashUploader::~CrashUploader() {
    m_uploader.reset(); // completions that run meanwhile take the mutex, which therefore goes later
}

void CrashUploader::sendLeftOvers(const std::string& crash_dir) {
    std::vector<std::string> names;
    if (!File::listFiles(crash_dir, false, &names, nullptr))
        return;

    // The application waits for the greeting: no completion is to get in the way, and libcurl's loading
    // neither.
    const HttpUploader::ScopedHold until_all_are_queued(*m_uploader);
    const Directory directory(crash_dir);
    const ScopedDescriptorReserve for_serving; // what cannot be opened now is sent by the next start
    for (const std::string& name : names) {
        if (File::extension(name) != "params")
            continue;

        const std::shared_ptr<File> params_file = directory.open(name, "r", true);
        if (!params_file)
            continue;

        const std::shared_ptr<File> dump = directory.open(dumpPathOf(name), "r", true);
        if (!dump)
            continue;

        addCrash(dump, params_file, std::function<void()>());
    }
}

void CrashUploader::addCrash(const std::string& dumpPath, const std::map<std::string, std::string>& params,
                             const std::function<void()>& done) {
    const std::shared_ptr<File> dump = File::open(dumpPath, "r", true);
    const std::shared_ptr<File> params_file = File::open(paramsPathOf(dumpPath), "w+", true);
    if (!dump || !params_file) {
        fprintf(stderr, "Failed to open either dump or params file!");
        deleteFiles(dump, params_file);
        return;
    }

    std::map<std::string, std::string> written_params = params;
    written_params["time"] = toStringUsingStreamOperator<unsigned long>(Time::wallNow().nanoseconds());
    for (const auto& [name, value] : written_params) {
        const std::string record = formatRecord(name, value);
        if (!record.empty())
            (void)params_file->write(record); // what the disk did not take is missing when it is read back
    }

    addCrash(dump, params_file, done);
}

void CrashUploader::addCrash(const std::shared_ptr<File>& dump, const std::shared_ptr<File>& paramsFile,
                             const std::function<void()>& done) {
    ParamsVerdict verdict = readParams(*paramsFile, stemOf(dump->path()));
    if (!verdict.complaint.empty()) {
        fprintf(stderr, "%s", verdict.complaint.c_str());
        deleteFiles(dump, paramsFile);
        return;
    }

    startUpload(dump, paramsFile, std::move(verdict.upload_params), done);
}

void CrashUploader::startUpload(const std::shared_ptr<File>& dump, const std::shared_ptr<File>& params_file,
                                std::map<std::string, std::string> upload_params,
                                const std::function<void()>& done) {
    MutexLock lock(m_mutex);
    ++m_pending_uploads;
    announceUpload(dump->path());
    m_uploader->upload(
        {{"crash", dump}}, std::move(upload_params),
        std::bind(&CrashUploader::onUploadComplete, this, std::placeholders::_1, params_file, done));
}

void CrashUploader::onUploadComplete(const HttpUploader::UploadResponse& response,
                                     const std::shared_ptr<File>& paramsFile,
                                     const std::function<void()>& done) {
    // First of all, and without the mutex: it takes the handler's lock, which comes before ours. A handler
    // that it wakes may thus still find this upload pending; it looks again by itself.
    if (done)
        done();

    MutexLock lock(m_mutex);
    --m_pending_uploads;
    settle(response, paramsFile);
    (void)fflush(stderr);
}

/// Tells what became of an upload, and deletes a report that arrived.
void CrashUploader::settle(const HttpUploader::UploadResponse& response,
                           const std::shared_ptr<File>& params_file) {
    const auto entry = response.files.find("crash");
    if (entry == response.files.end()) {
        fprintf(stderr, "Upload response missing file. This should not happen.");
        return;
    }

    const std::shared_ptr<File> dump = entry->second;
    if (response.error != 0) {
        fprintf(stderr, "Failed to upload %s to the server\n", dump->path().c_str());
        return;
    }

    fprintf(stderr, "Successfully uploaded %s to the server\n", dump->path().c_str());
    printStackTraceLink(stemOf(dump->path()));
    deleteFiles(dump, params_file);
}

bool CrashUploader::isDone() {
    MutexLock lock(m_mutex);
    return m_pending_uploads == 0;
}

void CrashUploader::waitDone() {
    m_uploader->waitUploadsComplete();
}

void CrashUploader::deleteFiles(const std::shared_ptr<File>& dump, const std::shared_ptr<File>& paramsFile) {
    closeAndRemove(paramsFile);
    closeAndRemove(dump);
}

} // namespace vantor::crash
