#include "tests/support/https_connection.h"

#include <algorithm>
#include <limits>

namespace vantor::test {
namespace {

constexpr int kBadRequest = 400;
constexpr int kHeaderFieldsTooLarge = 431;

uint64_t mostBodyBytes(const TlsServer::Options& options) {
    constexpr int64_t kNoLimit = std::numeric_limits<int64_t>::max();
    const auto limit = [](int64_t wish) { return wish >= 0 ? wish : kNoLimit; };
    return static_cast<uint64_t>(
        std::min(limit(options.close_after_body_bytes), limit(options.stall_after_body_bytes)));
}

bool closesAtLimit(const TlsServer::Options& options) {
    return options.close_after_body_bytes >= 0 &&
           static_cast<uint64_t>(options.close_after_body_bytes) == mostBodyBytes(options);
}

} // namespace

HttpsConnection::HttpsConnection(TlsStream* stream, const TlsServer::Options& options, int number,
                                 int client_port)
    : m_stream(stream),
      m_options(options),
      m_number(number),
      m_client_port(client_port),
      m_reader(stream, mostBodyBytes(options)) {}

void HttpsConnection::serve(const TlsServer::Answering& answer) {
    if (m_options.mute) {
        m_stream->waitForEnd();
        return;
    }
    if (!m_stream->handshake())
        return;

    while (serveRequest(answer)) {
    }
}

/// True when another request may follow.
bool HttpsConnection::serveRequest(const TlsServer::Answering& answer) {
    switch (m_reader.read()) {
    case HttpRequestReader::Outcome::Whole:
        return give(answer(receivedRequest()));
    case HttpRequestReader::Outcome::LimitReached:
        endAtLimit();
        break;
    case HttpRequestReader::Outcome::Malformed:
        refuse(kBadRequest);
        break;
    case HttpRequestReader::Outcome::HeadTooLong:
        refuse(kHeaderFieldsTooLarge);
        break;
    case HttpRequestReader::Outcome::ConnectionOver:
        break;
    }
    return false;
}

ReceivedRequest HttpsConnection::receivedRequest() const {
    ReceivedRequest request;
    request.method = m_reader.head().method;
    request.target = m_reader.head().target;
    request.headers = m_reader.head().fields;
    request.body = m_reader.body();
    request.form = parseMultipart(request.header("content-type"), request.body).value_or(request.form);
    request.connection = m_number;
    request.client_port = m_client_port;
    return request;
}

/// True when the connection goes on.
bool HttpsConnection::give(const Answer& answer) {
    switch (answer.kind) {
    case Answer::Kind::Response:
        if (!m_stream->write(formatResponse(answer, m_reader.head().method)))
            return false;
        if (m_reader.head().keeps_connection && !closesConnection(answer))
            return true;
        m_stream->closeOrderly();
        break;
    case Answer::Kind::Raw:
        (void)m_stream->write(answer.body); // the connection ends either way
        m_stream->closeOrderly();
        break;
    case Answer::Kind::HangUp:
        break;
    case Answer::Kind::Silence:
        m_stream->waitForEnd();
        break;
    }
    return false;
}

/// Answers what is no request.
void HttpsConnection::refuse(int status) {
    Answer answer = Answer::status_code(status);
    answer.headers.emplace_back("Connection", "close");
    (void)m_stream->write(formatResponse(answer, "")); // the connection ends either way
    m_stream->closeOrderly();
}

void HttpsConnection::endAtLimit() {
    const bool is_answered = !m_options.early_answer.empty();
    if (is_answered)
        (void)m_stream->write(m_options.early_answer); // the request is over either way

    if (!closesAtLimit(m_options))
        m_stream->waitForEnd();
    else if (is_answered)
        m_stream->closeOrderly(); // while it sends, a client that is cut off may not read the answer
}

} // namespace vantor::test
