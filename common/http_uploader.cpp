#include "common/http_uploader.h"

#include "common/condition_variable.h"
#include "common/http_transfers.h"
#include "common/thread.h"

#include <deque>
#include <malloc.h>
#include <optional>

namespace vantor {

namespace {

/// Every wait here is a loop on a condition that is notified; this is how often it looks again all the same.
constexpr Duration kRecheckPeriod = Duration(10'000'000'000);

} // namespace

/// Shared with the worker's body, which may get its thread only when the uploader has gone.
struct HttpUploader::Impl : std::enable_shared_from_this<HttpUploader::Impl> {
    explicit Impl(HttpEndpoint to) : endpoint(std::move(to)) {}

    void enqueue(HttpUpload upload) VANTOR_EXCLUDES(mutex);
    void hold() VANTOR_EXCLUDES(mutex);
    void release() VANTOR_EXCLUDES(mutex);
    void waitUntilIdle() VANTOR_EXCLUDES(mutex);
    /// Completes all that is left and ends the worker.
    void stop() VANTOR_EXCLUDES(mutex);

    const HttpEndpoint endpoint;
    Mutex mutex;
    ConditionVariable changed;

private:
    void startWork() VANTOR_REQUIRES(mutex);
    bool hasWork() const VANTOR_REQUIRES(mutex) { return !m_queue.empty() && m_holds == 0; }

    // The worker: all of it runs on one thread.
    void work() VANTOR_EXCLUDES(mutex);
    bool becomeWorker() VANTOR_EXCLUDES(mutex);
    bool waitForUploads() VANTOR_EXCLUDES(mutex);
    void sendQueue() VANTOR_EXCLUDES(mutex);
    void sendWhatIsQueued() VANTOR_EXCLUDES(mutex);
    bool startTransfers(HttpTransfers* transfers) VANTOR_EXCLUDES(mutex);
    void failQueue(int32_t error) VANTOR_EXCLUDES(mutex);
    std::optional<HttpUpload> takeFirst() VANTOR_EXCLUDES(mutex);
    bool isStopping() VANTOR_EXCLUDES(mutex);
    void setTransfers(HttpTransfers* current) VANTOR_EXCLUDES(mutex);
    void onCompleted() VANTOR_EXCLUDES(mutex);

    Thread m_thread; // started under the mutex, joined when nobody starts it any more
    std::deque<HttpUpload> m_queue VANTOR_GUARDED_BY(mutex);
    int m_holds VANTOR_GUARDED_BY(mutex) = 0;
    size_t m_uncompleted VANTOR_GUARDED_BY(mutex) = 0; // queued, under way, or in its completion
    bool m_has_thread VANTOR_GUARDED_BY(mutex) = false;
    bool m_has_worker VANTOR_GUARDED_BY(mutex) = false;
    bool m_is_stopping VANTOR_GUARDED_BY(mutex) = false;
    HttpTransfers* m_transfers VANTOR_GUARDED_BY(mutex) = nullptr; // sendQueue()'s, while it runs
};

void HttpUploader::Impl::enqueue(HttpUpload upload) {
    upload.on_complete = [this, on_complete = std::move(upload.on_complete)](const UploadResponse& response) {
        on_complete(response);
        onCompleted();
    };

    MutexLock lock(mutex);
    const bool had_work = hasWork();
    m_queue.push_back(std::move(upload));
    ++m_uncompleted;
    if (hasWork() && (!had_work || !m_has_thread)) // otherwise the worker knows, or is not to know yet
        startWork();
}

void HttpUploader::Impl::hold() {
    MutexLock lock(mutex);
    ++m_holds;
}

void HttpUploader::Impl::release() {
    MutexLock lock(mutex);
    --m_holds;
    if (hasWork())
        startWork();
}

/// Sees to it that a worker looks at the queue.
void HttpUploader::Impl::startWork() {
    if (!m_has_thread)
        m_has_thread = m_thread.start([self = shared_from_this()] { self->work(); });
    if (m_transfers != nullptr)
        m_transfers->wakeUp();
    changed.notifyAll();
}

void HttpUploader::Impl::waitUntilIdle() {
    MutexLock lock(mutex);
    while (m_uncompleted > 0)
        changed.timedWaitRelative(mutex, kRecheckPeriod);
}

void HttpUploader::Impl::stop() {
    {
        MutexLock lock(mutex);
        m_is_stopping = true;
        if (m_transfers != nullptr)
            m_transfers->wakeUp();
        changed.notifyAll();
    }
    m_thread.join();
    waitUntilIdle(); // the worker may be on a borrowed thread
}

void HttpUploader::Impl::work() {
    if (!becomeWorker())
        return;

    while (waitForUploads()) {
        if (isStopping())
            failQueue(kUploaderDestroyed);
        else
            sendQueue();
    }
}

/// False when there is a worker already: a body that had to wait for a thread may get one after its successor
/// did.
bool HttpUploader::Impl::becomeWorker() {
    MutexLock lock(mutex);
    m_has_thread = true;
    const bool is_first = !m_has_worker;
    m_has_worker = true;
    return is_first;
}

/// True when something is queued; false when nothing is and the uploader stops.
bool HttpUploader::Impl::waitForUploads() {
    MutexLock lock(mutex);
    while (!hasWork() && !m_is_stopping)
        changed.timedWaitRelative(mutex, kRecheckPeriod);
    return !m_queue.empty();
}

/// Sends until nothing is queued or under way, and gives back the memory that it took.
void HttpUploader::Impl::sendQueue() {
    lowerThreadPriority();
    sendWhatIsQueued();
    (void)malloc_trim(0); // there may have been none to give back
}

void HttpUploader::Impl::sendWhatIsQueued() {
    // What waits behind a server that is not there would wait for as long each, and the process with it.
    HttpTransfers transfers(endpoint, [this] { failQueue(kUploadTimedOut); });
    if (!transfers.isUsable()) {
        failQueue(kUploaderUnavailable);
        return;
    }

    setTransfers(&transfers);
    while (!isStopping() && startTransfers(&transfers))
        transfers.run();
    setTransfers(nullptr);
}

/// Starts as many as there is room for; false when none is under way.
bool HttpUploader::Impl::startTransfers(HttpTransfers* transfers) {
    while (transfers->hasRoom()) {
        std::optional<HttpUpload> upload = takeFirst();
        if (!upload)
            break;
        transfers->start(std::move(*upload));
    }
    return !transfers->isEmpty();
}

/// Fails what is queued now, and nothing that comes later.
void HttpUploader::Impl::failQueue(int32_t error) {
    std::deque<HttpUpload> uploads;
    {
        MutexLock lock(mutex);
        uploads.swap(m_queue);
    }
    for (const HttpUpload& upload : uploads)
        failUpload(upload, error);
}

std::optional<HttpUpload> HttpUploader::Impl::takeFirst() {
    MutexLock lock(mutex);
    if (!hasWork())
        return std::nullopt;

    HttpUpload first = std::move(m_queue.front());
    m_queue.pop_front();
    return first;
}

bool HttpUploader::Impl::isStopping() {
    MutexLock lock(mutex);
    return m_is_stopping;
}

void HttpUploader::Impl::setTransfers(HttpTransfers* current) {
    MutexLock lock(mutex);
    m_transfers = current;
}

void HttpUploader::Impl::onCompleted() {
    MutexLock lock(mutex);
    --m_uncompleted;
    changed.notifyAll();
}

HttpUploader::HttpUploader(const std::string& url, Method, const std::vector<std::string>& headers,
                           bool keep_body)
    : m_impl(std::make_shared<Impl>(HttpEndpoint{url, headers, keep_body})) {}

HttpUploader::~HttpUploader() {
    m_impl->stop();
}

void HttpUploader::upload(const std::map<std::string, std::shared_ptr<File>>& files,
                          std::map<std::string, std::string> params,
                          const std::function<void(const UploadResponse&)>& on_complete) {
    m_impl->enqueue({files, std::move(params), on_complete});
}

HttpUploader::ScopedHold::ScopedHold(HttpUploader& uploader) : m_uploader(uploader) {
    m_uploader.m_impl->hold();
}

HttpUploader::ScopedHold::~ScopedHold() {
    m_uploader.m_impl->release();
}

void HttpUploader::waitUploadsComplete() {
    m_impl->waitUntilIdle();
}

} // namespace vantor
