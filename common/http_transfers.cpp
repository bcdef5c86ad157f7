#include "common/http_transfers.h"

#include "common/curl_library.h"
#include "common/environment.h"
#include "common/http_status_line.h"
#include "common/http_uploader_limits.h"

#include <algorithm>
#include <ctime>
#include <deque>

namespace vantor {

static_assert(kUploaderUnavailable == CURLE_FAILED_INIT);
static_assert(kUploadUnreadable == CURLE_READ_ERROR);
static_assert(kUploadTimedOut == CURLE_OPERATION_TIMEDOUT);
static_assert(kUploaderDestroyed == CURLE_ABORTED_BY_CALLBACK);

namespace {

// Over HTTP/1.1 a form needs at least a round trip, so a far server's reports leave as fast as there are
// connections. Few enough to be polite.
constexpr size_t kMostConnections = 8;
// Once the server has shown that it speaks HTTP/2, this many uploads share the connections: what servers
// allow on a single one, where libcurl puts them. Each holds a piece of its file in memory.
constexpr size_t kMostStreams = 100;
constexpr size_t kMostBodyKept = size_t(64) << 10;
// An answer is a word or two. A server that does not stop talking is no collection server.
constexpr size_t kMostAnswerRead = size_t(1) << 20;
// Bytes. Where uploads share an HTTP/2 connection, libcurl 7.88 sometimes forgets the end of an answer that
// is larger than its buffer (16 KiB, unless told otherwise), and the upload fails by its limit.
constexpr long kReceiveBuffer = 64L << 10;
// Bytes: what one TLS record carries. libcurl's 64 KiB save no call that counts, and take four times the
// memory for each upload under way.
constexpr long kSendBuffer = 16L << 10;
constexpr int kPollMilliseconds = 1000; // libcurl's own limits end the wait earlier
// libcurl 7.88 does not wait while an HTTP/2 stream may not send on before the server says so: it looks again
// at once, and a processor does nothing else for as long as the round trip takes. So does a healthy transfer
// now and then, but not this many times in a row.
constexpr int kMostIdleRounds = 16;
constexpr timespec kPauseWhenIdle = {0, 1'000'000};

long milliseconds(Duration span) {
    return static_cast<long>(span.nanoseconds() / 1'000'000);
}

long wholeSeconds(Duration span) {
    return static_cast<long>(span.nanoseconds() / 1'000'000'000);
}

/// A file of the form, as libcurl reads it piece by piece.
struct FilePart {
    std::shared_ptr<File> file;
    int64_t unread = 0;
    int* idle_rounds; // see HttpTransfers::Impl

    /// How many bytes were put into `buffer`. A file that has become shorter ends the transfer.
    static size_t read(char* buffer, size_t size, size_t count, void* self) {
        auto* part = static_cast<FilePart*>(self);
        std::string piece;
        *part->idle_rounds = 0;
        const int64_t wanted = std::min(static_cast<int64_t>(size * count), part->unread);
        if (part->file->read(&piece, wanted) != wanted)
            return CURL_READFUNC_ABORT;

        std::copy(piece.begin(), piece.end(), buffer);
        part->unread -= wanted;
        return piece.size();
    }

    /// libcurl goes back to the start when a reused connection turns out to be dead.
    static int seek(void* self, curl_off_t offset, int origin) {
        auto* part = static_cast<FilePart*>(self);
        const int64_t size = part->file->size();
        if (origin != SEEK_SET || offset > size || !part->file->seek(offset))
            return CURL_SEEKFUNC_FAIL;

        part->unread = size - offset;
        return CURL_SEEKFUNC_OK;
    }
};

/// One upload under way.
struct Transfer {
    HttpUpload upload;
    CURL* easy = nullptr;
    curl_mime* form = nullptr;
    std::deque<FilePart> file_parts; // where libcurl finds them: they must not move
    bool keep_body = false;
    int* idle_rounds = nullptr; // see HttpTransfers::Impl
    size_t answer_read = 0;     // header, body and trailers
    std::string body;

    static size_t receiveBody(char* data, size_t size, size_t count, void* self) {
        auto* transfer = static_cast<Transfer*>(self);
        const size_t length = transfer->receive(size * count);
        if (transfer->keep_body)
            transfer->body.append(data, std::min(length, kMostBodyKept - transfer->body.size()));
        return length;
    }

    static size_t receiveHeader(char* data, size_t size, size_t count, void* self) {
        if (isBrokenStatusLine({data, size * count}))
            return 0;
        return static_cast<Transfer*>(self)->receive(size * count);
    }

private:
    /// `length`, or 0, which ends the transfer.
    size_t receive(size_t length) {
        *idle_rounds = 0;
        answer_read += length;
        return answer_read > kMostAnswerRead ? 0 : length;
    }
};

} // namespace

void failUpload(const HttpUpload& upload, int32_t error) {
    HttpUploader::UploadResponse response;
    response.files = upload.files;
    response.error = error;
    upload.on_complete(response);
}

struct HttpTransfers::Impl {
    Impl(const HttpEndpoint& to, const std::function<void()>& when_silent);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    CURL* takeHandle();
    bool configure(CURL* easy) const;
    bool trustAuthorities(CURL* easy) const;
    bool fillForm(Transfer* transfer);
    bool addFile(Transfer* transfer, const std::string& name, const std::shared_ptr<File>& file);
    bool begin(Transfer* transfer);
    void pauseWhenIdle();
    void finish(CURL* easy, CURLcode result);
    void release(Transfer* transfer);
    HttpUploader::UploadResponse outcome(const Transfer& transfer, CURLcode result) const;
    bool isSentWhole(CURL* easy) const;
    void learnFrom(CURL* easy, CURLcode result);

    const HttpEndpoint& endpoint;
    const std::function<void()> on_server_silent;
    const CurlLibrary* const curl; // null: nothing can be sent
    CURLM* multi = nullptr;
    curl_slist* headers = nullptr;
    std::vector<CURL*> spare_handles; // configured, and not in use
    std::vector<std::unique_ptr<Transfer>> active;
    size_t most_active = kMostConnections;
    int idle_rounds = 0; // of run() in a row in which libcurl neither took nor gave a byte
    size_t timeouts_in_a_row = 0;
};

HttpTransfers::Impl::Impl(const HttpEndpoint& to, const std::function<void()>& when_silent)
    : endpoint(to),
      on_server_silent(when_silent),
      curl(CurlLibrary::load()) {
    if (curl == nullptr)
        return;

    multi = curl->multi_init();
    if (multi != nullptr)
        (void)curl->multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(kMostConnections));

    // Waiting for the server's leave to send the body would cost each upload a round trip.
    headers = curl->slist_append(nullptr, "Expect:");
    for (const std::string& header : endpoint.headers)
        headers = curl->slist_append(headers, header.c_str());
}

HttpTransfers::Impl::~Impl() {
    while (!active.empty())
        finish(active.back()->easy, CURLE_ABORTED_BY_CALLBACK);
    if (curl == nullptr)
        return;

    for (CURL* easy : spare_handles)
        curl->easy_cleanup(easy);
    curl->slist_free_all(headers);
    if (multi != nullptr)
        (void)curl->multi_cleanup(multi); // closes the connections
}

/// A configured handle, or null.
CURL* HttpTransfers::Impl::takeHandle() {
    if (!spare_handles.empty()) {
        CURL* easy = spare_handles.back();
        spare_handles.pop_back();
        return easy;
    }

    CURL* easy = curl->easy_init();
    if (easy != nullptr && !configure(easy)) {
        curl->easy_cleanup(easy);
        return nullptr;
    }
    return easy;
}

/// Sets what all transfers have in common. False when libcurl does not take all of it: better no upload than
/// one that goes to a stranger.
bool HttpTransfers::Impl::configure(CURL* easy) const {
    const auto set = [this, easy](CURLoption option, auto value) {
        return curl->easy_setopt(easy, option, value) == CURLE_OK;
    };
    return set(CURLOPT_URL, endpoint.url.c_str()) && set(CURLOPT_HTTPHEADER, headers) &&
           set(CURLOPT_USERAGENT, "vantor") && set(CURLOPT_NOSIGNAL, 1L) &&
           set(CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTPS)) && set(CURLOPT_FOLLOWLOCATION, 0L) &&
           set(CURLOPT_SSL_VERIFYPEER, 1L) && set(CURLOPT_SSL_VERIFYHOST, 2L) &&
           set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)) && trustAuthorities(easy) &&
           set(CURLOPT_CONNECTTIMEOUT_MS, milliseconds(kHttpUploaderLimits.connect)) &&
           set(CURLOPT_LOW_SPEED_LIMIT, 1L) && // bytes in a second
           set(CURLOPT_LOW_SPEED_TIME, wholeSeconds(kHttpUploaderLimits.stall)) &&
           set(CURLOPT_UPLOAD_BUFFERSIZE, kSendBuffer) && set(CURLOPT_BUFFERSIZE, kReceiveBuffer) &&
           set(CURLOPT_WRITEFUNCTION, Transfer::receiveBody) &&
           set(CURLOPT_HEADERFUNCTION, Transfer::receiveHeader);
}

/// Names the certificate authorities to trust. With a single file, and no directory beside it, libcurl parses
/// the authorities once and not at every connection, which takes 20 ms.
bool HttpTransfers::Impl::trustAuthorities(CURL* easy) const {
    constexpr const char* kNoDirectory = nullptr;
    const std::string file = environmentVariable("SSL_CERT_FILE");
    if (!file.empty() && curl->easy_setopt(easy, CURLOPT_CAINFO, file.c_str()) != CURLE_OK)
        return false;

    const curl_version_info_data* version = curl->version_info(CURLVERSION_NOW);
    const bool has_default_file = version->age >= CURLVERSION_SEVENTH && version->cainfo != nullptr;
    return (file.empty() && !has_default_file) ||
           curl->easy_setopt(easy, CURLOPT_CAPATH, kNoDirectory) == CURLE_OK;
}

bool HttpTransfers::Impl::fillForm(Transfer* transfer) {
    transfer->form = curl->mime_init(transfer->easy);
    for (const auto& [name, value] : transfer->upload.params) {
        curl_mimepart* part = curl->mime_addpart(transfer->form);
        if (curl->mime_name(part, name.c_str()) != CURLE_OK ||
            curl->mime_data(part, value.data(), value.size()) != CURLE_OK)
            return false;
    }
    return std::all_of(transfer->upload.files.begin(), transfer->upload.files.end(),
                       [&](const auto& entry) { return addFile(transfer, entry.first, entry.second); });
}

bool HttpTransfers::Impl::addFile(Transfer* transfer, const std::string& name,
                                  const std::shared_ptr<File>& file) {
    const int64_t size = file->size();
    if (size < 0 || !file->seek(0))
        return false;

    FilePart& source = transfer->file_parts.emplace_back(FilePart{file, size, &idle_rounds});
    curl_mimepart* part = curl->mime_addpart(transfer->form);
    return curl->mime_name(part, name.c_str()) == CURLE_OK &&
           curl->mime_filename(part, File::basename(file->path()).c_str()) == CURLE_OK &&
           curl->mime_type(part, "application/octet-stream") == CURLE_OK &&
           curl->mime_data_cb(part, size, FilePart::read, FilePart::seek, nullptr, &source) == CURLE_OK;
}

/// Gives the transfer to libcurl.
bool HttpTransfers::Impl::begin(Transfer* transfer) {
    return fillForm(transfer) &&
           curl->easy_setopt(transfer->easy, CURLOPT_MIMEPOST, transfer->form) == CURLE_OK &&
           curl->easy_setopt(transfer->easy, CURLOPT_WRITEDATA, transfer) == CURLE_OK &&
           curl->easy_setopt(transfer->easy, CURLOPT_HEADERDATA, transfer) == CURLE_OK &&
           curl->multi_add_handle(multi, transfer->easy) == CURLM_OK;
}

/// Gives the processor to others for a moment when libcurl has turned round and round.
void HttpTransfers::Impl::pauseWhenIdle() {
    if (++idle_rounds > kMostIdleRounds)
        (void)nanosleep(&kPauseWhenIdle, nullptr); // a pause cut short is as good
}

/// Ends an active transfer and completes its upload.
void HttpTransfers::Impl::finish(CURL* easy, CURLcode result) {
    const auto position = std::find_if(active.begin(), active.end(),
                                       [easy](const auto& transfer) { return transfer->easy == easy; });
    const std::unique_ptr<Transfer> transfer = std::move(*position);
    active.erase(position);

    const HttpUploader::UploadResponse response = outcome(*transfer, result);
    learnFrom(easy, result);
    release(transfer.get());
    transfer->upload.on_complete(response);
}

/// Takes back from libcurl what begin() gave it. The handle is ready for another upload.
void HttpTransfers::Impl::release(Transfer* transfer) {
    constexpr curl_mime* kNoForm = nullptr;
    (void)curl->multi_remove_handle(multi, transfer->easy);             // it may never have got there
    (void)curl->easy_setopt(transfer->easy, CURLOPT_MIMEPOST, kNoForm); // cannot fail
    curl->mime_free(transfer->form);
    spare_handles.push_back(transfer->easy);
}

HttpUploader::UploadResponse HttpTransfers::Impl::outcome(const Transfer& transfer, CURLcode result) const {
    long status = 0;
    (void)curl->easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status); // 0 when there is none

    HttpUploader::UploadResponse response;
    response.files = transfer.upload.files;
    response.http_status = static_cast<int32_t>(status);
    response.body = transfer.body;
    if (result != CURLE_OK)
        response.error = result;
    else if (status < 200 || status > 299)
        response.error = response.http_status;
    else if (!isSentWhole(transfer.easy))
        response.error = CURLE_SEND_ERROR;
    return response;
}

/// A server may accept a form that it has not seen the end of; libcurl then stops in the middle, and is
/// content.
bool HttpTransfers::Impl::isSentWhole(CURL* easy) const {
    curl_off_t sent = 0;
    curl_off_t length = 0;
    return curl->easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &sent) == CURLE_OK &&
           curl->easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_UPLOAD_T, &length) == CURLE_OK && sent >= length;
}

/// Draws conclusions about the server from a transfer that has ended.
void HttpTransfers::Impl::learnFrom(CURL* easy, CURLcode result) {
    timeouts_in_a_row = result == CURLE_OPERATION_TIMEDOUT ? timeouts_in_a_row + 1 : 0;
    if (timeouts_in_a_row == kMostConnections) {
        timeouts_in_a_row = 0;
        on_server_silent();
    }

    long version = CURL_HTTP_VERSION_NONE;
    (void)curl->easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version); // as it was, when there is none
    if (version >= CURL_HTTP_VERSION_2_0)
        most_active = kMostStreams;
}

HttpTransfers::HttpTransfers(const HttpEndpoint& endpoint, const std::function<void()>& on_server_silent)
    : m_impl(std::make_unique<Impl>(endpoint, on_server_silent)) {}

HttpTransfers::~HttpTransfers() = default;

bool HttpTransfers::isUsable() const {
    return m_impl->multi != nullptr;
}

bool HttpTransfers::hasRoom() const {
    return m_impl->active.size() < m_impl->most_active;
}

bool HttpTransfers::isEmpty() const {
    return m_impl->active.empty();
}

void HttpTransfers::start(HttpUpload upload) {
    CURL* easy = m_impl->takeHandle();
    if (easy == nullptr) {
        failUpload(upload, kUploaderUnavailable);
        return;
    }

    auto transfer = std::make_unique<Transfer>();
    transfer->upload = std::move(upload);
    transfer->easy = easy;
    transfer->keep_body = m_impl->endpoint.keep_body;
    transfer->idle_rounds = &m_impl->idle_rounds;
    if (!m_impl->begin(transfer.get())) {
        m_impl->release(transfer.get());
        failUpload(transfer->upload, kUploadUnreadable);
        return;
    }
    m_impl->active.push_back(std::move(transfer));
}

void HttpTransfers::run() {
    const CurlLibrary& curl = *m_impl->curl;
    int still_running = 0;
    m_impl->pauseWhenIdle();
    (void)curl.multi_poll(m_impl->multi, nullptr, 0, kPollMilliseconds,
                          nullptr); // a failed wait is a short one
    if (curl.multi_perform(m_impl->multi, &still_running) != CURLM_OK) {
        while (!isEmpty())
            m_impl->finish(m_impl->active.back()->easy, CURLE_OUT_OF_MEMORY);
        return;
    }

    int left = 0;
    while (const CURLMsg* message = curl.multi_info_read(m_impl->multi, &left)) {
        if (message->msg == CURLMSG_DONE)
            m_impl->finish(message->easy_handle, message->data.result);
    }
}

void HttpTransfers::wakeUp() {
    if (m_impl->multi != nullptr)
        (void)m_impl->curl->multi_wakeup(m_impl->multi); // at worst run() sees it after its poll
}

} // namespace vantor
