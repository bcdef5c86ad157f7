#include "tests/support/http_request_reader.h"

#include <algorithm>
#include <array>

namespace vantor::test {
namespace {

constexpr size_t kLongestHead = size_t(64) * 1024;
constexpr size_t kPieceSize = size_t(16) * 1024; // as much as TLS puts into one record
constexpr std::string_view kLineEnd = "\r\n";

} // namespace

HttpRequestReader::Outcome HttpRequestReader::read() {
    const Outcome outcome = readHead();
    if (outcome != Outcome::Whole)
        return outcome;

    if (m_head.expects_continue && !m_stream->write("HTTP/1.1 100 Continue\r\n\r\n"))
        return Outcome::ConnectionOver;
    return readBody();
}

HttpRequestReader::Outcome HttpRequestReader::readHead() {
    std::string text;
    const Outcome outcome = readThrough("\r\n\r\n", &text);
    if (outcome != Outcome::Whole)
        return outcome;

    std::optional<RequestHead> head = parseRequestHead(text);
    if (!head)
        return Outcome::Malformed;

    m_head = std::move(*head);
    return Outcome::Whole;
}

HttpRequestReader::Outcome HttpRequestReader::readBody() {
    m_body.clear();
    if (m_most_body_bytes == 0)
        return Outcome::LimitReached;

    return m_head.is_chunked ? readChunkedBody() : appendToBody(m_head.content_length);
}

HttpRequestReader::Outcome HttpRequestReader::readChunkedBody() {
    while (true) {
        std::string line;
        Outcome outcome = readThrough(kLineEnd, &line);
        if (outcome != Outcome::Whole)
            return outcome;

        const std::optional<uint64_t> size = parseChunkSize(line);
        if (!size)
            return Outcome::Malformed;
        if (*size == 0)
            return readTrailers();

        outcome = appendToBody(*size);
        if (outcome == Outcome::Whole)
            outcome = readThrough(kLineEnd, &line);
        if (outcome != Outcome::Whole)
            return outcome;
        if (!line.empty())
            return Outcome::Malformed;
    }
}

/// Reads past the lines that may follow the last chunk.
HttpRequestReader::Outcome HttpRequestReader::readTrailers() {
    std::string line;
    do {
        const Outcome outcome = readThrough(kLineEnd, &line);
        if (outcome != Outcome::Whole)
            return outcome;
    } while (!line.empty());
    return Outcome::Whole;
}

HttpRequestReader::Outcome HttpRequestReader::appendToBody(uint64_t count) {
    while (count > 0) {
        if (m_received.empty() && !receive())
            return Outcome::ConnectionOver;

        const uint64_t piece = std::min({count, m_received.size(), m_most_body_bytes - m_body.size()});
        m_body.append(m_received, 0, piece);
        m_received.erase(0, piece);
        count -= piece;
        if (m_body.size() == m_most_body_bytes)
            return Outcome::LimitReached;
    }
    return Outcome::Whole;
}

/// Moves what comes before `delimiter` into `text`, and drops the delimiter.
HttpRequestReader::Outcome HttpRequestReader::readThrough(std::string_view delimiter, std::string* text) {
    size_t end = m_received.find(delimiter);
    while (end == std::string::npos) {
        if (m_received.size() > kLongestHead)
            return Outcome::HeadTooLong;
        if (!receive())
            return Outcome::ConnectionOver;
        end = m_received.find(delimiter);
    }

    *text = m_received.substr(0, end);
    m_received.erase(0, end + delimiter.size());
    return Outcome::Whole;
}

/// Waits for a piece and adds it to what was received; false when the connection is over.
bool HttpRequestReader::receive() {
    std::array<char, kPieceSize> piece;
    const size_t size = m_stream->read(piece.data(), piece.size());
    m_received.append(piece.data(), size);
    return size > 0;
}

} // namespace vantor::test
