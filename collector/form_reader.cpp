#include "collector/form_reader.h"

#include "collector/header_value.h"

#include <algorithm>

namespace vantor::collector {

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeaderEnd = "\r\n\r\n";
constexpr std::string_view kClosing = "--"; // after the last boundary

} // namespace

FormReader::FormReader(const std::string& boundary, const FormLimits& limits, FormSink& sink)
    : m_delimiter("\r\n--" + boundary),
      m_limits(limits),
      m_sink(sink) {}

const std::optional<Rejection>& FormReader::feed(std::string_view piece) {
    constexpr uint64_t kSlice = 16ULL * 1024; // a large piece is not copied as a whole
    while (!m_rejection && !piece.empty()) {
        const uint64_t room = m_limits.body_bytes - m_body_bytes;
        if (room == 0) {
            refuse(tooLarge("The form", m_limits.body_bytes));
            break;
        }
        const std::string_view slice = piece.substr(0, std::min(kSlice, room));
        piece.remove_prefix(slice.size());
        m_body_bytes += slice.size();

        m_unread += slice;
        std::string_view rest = m_unread;
        while (!m_rejection && step(&rest))
            continue;
        m_unread.erase(0, m_unread.size() - rest.size());
    }
    return m_rejection;
}

const std::optional<Rejection>& FormReader::finish() {
    if (!m_rejection && m_state != State::Epilogue)
        refuse(bad("The form ends before its closing boundary."));
    return m_rejection;
}

/// Takes one thing off the front of `rest`; false when more bytes are needed for it.
bool FormReader::step(std::string_view* rest) {
    switch (m_state) {
    case State::Start:
        return readStart(rest);
    case State::AfterBoundary:
        return readAfterBoundary(rest);
    case State::Header:
        return readHeader(rest);
    case State::Body:
        return readBody(rest);
    case State::Epilogue:
        break;
    }
    rest->remove_prefix(rest->size());
    return false;
}

bool FormReader::readStart(std::string_view* rest) {
    std::string_view expected = m_delimiter;
    if (!rest->starts_with(kLineEnd.front()))
        expected.remove_prefix(kLineEnd.size());
    if (rest->size() < expected.size())
        return false;

    if (!rest->starts_with(expected))
        refuse(bad("The form does not begin with its boundary."));
    rest->remove_prefix(expected.size());
    m_state = State::AfterBoundary;
    return true;
}

bool FormReader::readAfterBoundary(std::string_view* rest) {
    if (rest->size() < kLineEnd.size())
        return false;

    if (rest->starts_with(kLineEnd))
        m_state = State::Header;
    else if (rest->starts_with(kClosing))
        m_state = State::Epilogue;
    else
        refuse(bad("A boundary of the form is not followed by the end of its line."));
    rest->remove_prefix(kLineEnd.size());
    return true;
}

bool FormReader::readHeader(std::string_view* rest) {
    const std::string_view most = rest->substr(0, kMostPartHeaderBytes);
    const size_t end = most.find(kHeaderEnd);
    if (end == std::string_view::npos) {
        if (most.size() == kMostPartHeaderBytes)
            refuse(tooLarge("The header of a part", kMostPartHeaderBytes));
        return false;
    }

    std::optional<PartHeader> part = parsePartHeader(most.substr(0, end + kLineEnd.size()));
    rest->remove_prefix(end + kHeaderEnd.size());
    if (part) {
        m_part = std::move(*part);
        m_state = State::Body;
        beginPart();
    } else {
        refuse(bad("The header of a part is not well formed."));
    }
    return true;
}

bool FormReader::readBody(std::string_view* rest) {
    const size_t end = rest->find(m_delimiter);
    const bool is_whole = end != std::string_view::npos;
    // The last bytes may be the beginning of the delimiter.
    const size_t count = is_whole ? end : rest->size() - std::min(rest->size(), m_delimiter.size() - 1);
    if (count > 0)
        takeBody(rest->substr(0, count));
    rest->remove_prefix(count);
    if (!is_whole)
        return false;

    if (!m_rejection)
        endPart();
    rest->remove_prefix(m_delimiter.size());
    m_state = State::AfterBoundary;
    return true;
}

void FormReader::beginPart() {
    if (m_part.name.size() > m_limits.name_bytes)
        return refuse(tooLarge("The name of a part", m_limits.name_bytes));

    if (m_part.filename) {
        m_rejection = m_sink.beginFile(m_part.name, *m_part.filename);
        return;
    }
    m_value.clear();
    if (++m_fields > m_limits.fields)
        return refuse({Rejection::Kind::TooLarge,
                       "The form has more than " + std::to_string(m_limits.fields) + " fields."});
    countFieldBytes(m_part.name.size());
}

void FormReader::takeBody(std::string_view piece) {
    if (m_part.filename) {
        m_file_bytes += piece.size();
        if (m_file_bytes > m_limits.file_bytes)
            return refuse(tooLarge("The file", m_limits.file_bytes));
        m_rejection = m_sink.fileData(piece);
        return;
    }
    if (piece.size() > m_limits.value_bytes - m_value.size())
        return refuse(tooLarge("The value of a field", m_limits.value_bytes));
    m_value += piece;
}

void FormReader::endPart() {
    if (m_part.filename) {
        m_rejection = m_sink.endFile();
        return;
    }
    countFieldBytes(m_value.size());
    if (!m_rejection)
        m_rejection = m_sink.field(m_part.name, m_value);
}

void FormReader::countFieldBytes(size_t count) {
    m_field_bytes += count;
    if (m_field_bytes > m_limits.field_bytes)
        refuse(tooLarge("The text of all fields", m_limits.field_bytes));
}

void FormReader::refuse(const Rejection& rejection) {
    m_rejection = rejection;
}

std::optional<std::string> boundaryOf(std::string_view content_type) {
    constexpr size_t kLongestBoundary = 70;
    constexpr std::string_view kCharacters = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                             "'()+_,-./:=? ";
    const std::optional<HeaderValue> type = parseHeaderValue(content_type, Escapes::Backslash);
    if (!type || type->value != "multipart/form-data")
        return std::nullopt;

    const auto found = type->parameters.find("boundary");
    if (found == type->parameters.end())
        return std::nullopt;

    const std::string& boundary = found->second;
    if (boundary.empty() || boundary.size() > kLongestBoundary || boundary.ends_with(' ') ||
        boundary.find_first_not_of(kCharacters) != std::string::npos)
        return std::nullopt;
    return boundary;
}

} // namespace vantor::collector
