#include "collector/http_server.h"

#include "common/condition_variable.h"
#include "common/mutex.h"
#include "common/time.h"

#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor::collector {

namespace {

constexpr unsigned int kThreads = 8;                     // each may wait for the disk while the others serve
constexpr size_t kBytesPerConnection = size_t(16) << 10; // of a header, and of what was read of a body
constexpr uint64_t kMostReadOver = uint64_t(256) << 20;  // bytes of a body that nobody wants
constexpr Duration kEndPatience(10'000'000'000);
constexpr const char* kTls = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

/// An address in the form that system calls take.
union SocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

std::optional<SocketAddress> parseAddress(const std::string& address, uint16_t port) {
    SocketAddress result = {};
    if (inet_pton(AF_INET, address.c_str(), &result.v4.sin_addr) == 1) {
        result.v4.sin_family = AF_INET;
        result.v4.sin_port = htons(port);
        return result;
    }
    if (inet_pton(AF_INET6, address.c_str(), &result.v6.sin6_addr) == 1) {
        result.v6.sin6_family = AF_INET6;
        result.v6.sin6_port = htons(port);
        return result;
    }
    return std::nullopt;
}

std::string textOf(const sockaddr* address) {
    std::array<char, INET6_ADDRSTRLEN> text = {};
    const void* number =
        address->sa_family == AF_INET6
            ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr)
            : &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    const char* result = inet_ntop(address->sa_family, number, text.data(), text.size());
    return result != nullptr ? result : "?";
}

std::string valueOf(MHD_Connection* connection, MHD_ValueKind kind, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, kind, name);
    return value != nullptr ? value : "";
}

std::optional<uint64_t> numberIn(const std::string& text) {
    uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return !text.empty() && error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

HttpRequest requestOf(MHD_Connection* connection, const char* path, const char* method) {
    HttpRequest request;
    request.method = method;
    request.path = path;
    request.key = valueOf(connection, MHD_GET_ARGUMENT_KIND, "key");
    request.host = valueOf(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST);
    request.content_type = valueOf(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_TYPE);
    request.content_length = numberIn(valueOf(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH));
    request.expects_continue = !valueOf(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_EXPECT).empty();
    const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    request.client = info != nullptr ? textOf(info->client_addr) : "?";
    return request;
}

MHD_Response* messageOf(const HttpResponse& response) {
    if (response.file == nullptr)
        return MHD_create_response_from_buffer(response.body.size(), const_cast<char*>(response.body.data()),
                                               MHD_RESPMEM_MUST_COPY);
    struct stat status = {};
    const int descriptor = dup(response.file->get()); // which the message closes
    if (descriptor == -1 || fstat(descriptor, &status) != 0)
        return nullptr;
    return MHD_create_response_from_fd64(static_cast<uint64_t>(status.st_size), descriptor);
}

MHD_Result send(MHD_Connection* connection, const HttpResponse& response) {
    MHD_Response* message = messageOf(response);
    if (message == nullptr)
        return MHD_NO;

    // What a report says is shown as it is written, and never run.
    (void)MHD_add_response_header(message, MHD_HTTP_HEADER_CONTENT_TYPE, response.content_type.c_str());
    (void)MHD_add_response_header(message, "X-Content-Type-Options", "nosniff");
    (void)MHD_add_response_header(message, "Content-Security-Policy",
                                  "default-src 'none'; style-src 'unsafe-inline'");
    (void)MHD_add_response_header(message, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    if (response.retry_after != 0)
        (void)MHD_add_response_header(message, MHD_HTTP_HEADER_RETRY_AFTER,
                                      std::to_string(response.retry_after).c_str());
    if (!response.allowed_methods.empty())
        (void)MHD_add_response_header(message, MHD_HTTP_HEADER_ALLOW, response.allowed_methods.c_str());

    const MHD_Result result = MHD_queue_response(connection, response.status, message);
    MHD_destroy_response(message);
    return result;
}

/// Answers a request that needs no body, and may have one.
class ReadyAnswer : public BodyReceiver {
public:
    explicit ReadyAnswer(HttpResponse answer) : m_answer(std::move(answer)) {}

    bool take(std::string_view piece) override {
        m_bytes += piece.size();
        return m_bytes <= kMostReadOver;
    }
    HttpResponse answer() override { return std::move(m_answer); }

private:
    HttpResponse m_answer;
    uint64_t m_bytes = 0;
};

/// What the library has complained of first: the later ones follow from it.
class Complaints {
public:
    static void take(void* self, const char* format, va_list arguments) {
        std::array<char, 512> text = {};
        (void)vsnprintf(text.data(), text.size(), format, arguments); // cut where it is too long
        static_cast<Complaints*>(self)->set(text.data());
    }

    std::string get() {
        MutexLock lock(m_mutex);
        return m_text;
    }

private:
    void set(const std::string& text) {
        MutexLock lock(m_mutex);
        if (m_text.empty())
            m_text = text.substr(0, text.find('\n'));
    }

    Mutex m_mutex;
    std::string m_text VANTOR_GUARDED_BY(m_mutex);
};

} // namespace

struct HttpServer::Impl {
    explicit Impl(std::function<HttpDecision(const HttpRequest&)> decide_request)
        : decide(std::move(decide_request)) {}

    static MHD_Result onRequest(void* self, MHD_Connection* connection, const char* path, const char* method,
                                const char* version, const char* piece, size_t* size, void** receiver);
    static void onEnd(void* self, MHD_Connection* connection, void** receiver,
                      MHD_RequestTerminationCode how);

    MHD_Result begin(MHD_Connection* connection, const HttpRequest& request, void** receiver);
    void waitForRequestsInHand();

    std::function<HttpDecision(const HttpRequest&)> decide;
    Complaints complaints;
    MHD_Daemon* daemon = nullptr;
    Mutex mutex;
    ConditionVariable has_changed;
    size_t in_hand VANTOR_GUARDED_BY(mutex) = 0; // requests whose bodies are being received
};

MHD_Result HttpServer::Impl::onRequest(void* self, MHD_Connection* connection, const char* path,
                                       const char* method, const char*, const char* piece, size_t* size,
                                       void** receiver) {
    if (*receiver == nullptr)
        return static_cast<Impl*>(self)->begin(connection, requestOf(connection, path, method), receiver);

    auto* body = static_cast<BodyReceiver*>(*receiver);
    if (*size == 0)
        return send(connection, body->answer());

    const bool goes_on = body->take({piece, *size});
    *size = 0;
    return goes_on ? MHD_YES : MHD_NO;
}

MHD_Result HttpServer::Impl::begin(MHD_Connection* connection, const HttpRequest& request, void** receiver) {
    HttpDecision decision = decide(request);
    if (HttpResponse* response = std::get_if<HttpResponse>(&decision)) {
        if (request.expects_continue || request.content_length.value_or(0) > kMostReadOver)
            return send(connection, *response); // and the library closes the connection
        decision = std::make_unique<ReadyAnswer>(std::move(*response));
    }

    *receiver = std::get<std::unique_ptr<BodyReceiver>>(decision).release();
    MutexLock lock(mutex);
    ++in_hand;
    return MHD_YES;
}

void HttpServer::Impl::onEnd(void* self, MHD_Connection*, void** receiver, MHD_RequestTerminationCode) {
    if (*receiver == nullptr)
        return;

    delete static_cast<BodyReceiver*>(*receiver);
    auto* impl = static_cast<Impl*>(self);
    MutexLock lock(impl->mutex);
    --impl->in_hand;
    impl->has_changed.notifyAll();
}

void HttpServer::Impl::waitForRequestsInHand() {
    const Time end = Time::now() + kEndPatience;
    MutexLock lock(mutex);
    while (in_hand > 0 && Time::now() < end)
        has_changed.timedWaitRelative(mutex, kEndPatience);
}

HttpServer::HttpServer(const Options& options, const std::function<HttpDecision(const HttpRequest&)>& decide)
    : m_impl(std::make_unique<Impl>(decide)) {
    const std::optional<SocketAddress> address = parseAddress(options.address, options.port);
    if (!address)
        throw StartError("'" + options.address + "' is no numeric address");

    const unsigned int family = address->any.sa_family == AF_INET6 ? MHD_USE_DUAL_STACK : 0;
    m_impl->daemon = MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_TLS | MHD_USE_ITC | MHD_USE_ERROR_LOG | family, options.port,
        nullptr, nullptr, &Impl::onRequest, m_impl.get(),                    //
        MHD_OPTION_EXTERNAL_LOGGER, &Complaints::take, &m_impl->complaints,  // first, to hear of the rest
        MHD_OPTION_SOCK_ADDR, &address->any,                                 //
        MHD_OPTION_HTTPS_MEM_CERT, options.certificate.c_str(),              //
        MHD_OPTION_HTTPS_MEM_KEY, options.key.c_str(),                       //
        MHD_OPTION_HTTPS_PRIORITIES, kTls,                                   //
        MHD_OPTION_NOTIFY_COMPLETED, &Impl::onEnd, m_impl.get(),             //
        MHD_OPTION_THREAD_POOL_SIZE, kThreads,                               //
        MHD_OPTION_CONNECTION_LIMIT, options.connections,                    //
        MHD_OPTION_PER_IP_CONNECTION_LIMIT, options.connections_per_address, //
        MHD_OPTION_CONNECTION_TIMEOUT, options.silence_seconds,              //
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, kBytesPerConnection,             //
        MHD_OPTION_END);
    if (m_impl->daemon == nullptr)
        throw StartError(m_impl->complaints.get());
}

HttpServer::~HttpServer() {
    const int listener = MHD_quiesce_daemon(m_impl->daemon);
    m_impl->waitForRequestsInHand();
    MHD_stop_daemon(m_impl->daemon);
    (void)close(listener); // nobody accepts from it any more
}

uint16_t HttpServer::port() const {
    return MHD_get_daemon_info(m_impl->daemon, MHD_DAEMON_INFO_BIND_PORT)->port;
}

} // namespace vantor::collector
