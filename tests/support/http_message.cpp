#include "tests/support/http_message.h"

#include <algorithm>
#include <charconv>

namespace vantor::test {
namespace {

constexpr std::string_view kLineEnd = "\r\n";

std::optional<uint64_t> parseNumber(std::string_view digits, int base) {
    uint64_t number = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number, base);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

std::string lowerCaseField(const HeaderFields& fields, std::string_view name) {
    const std::string* value = findField(fields, name);
    return value != nullptr ? toLowerCase(*value) : "";
}

bool hasAtMostOne(const HeaderFields& fields, std::string_view name) {
    return std::count_if(fields.begin(), fields.end(),
                         [name](const auto& field) { return field.first == name; }) <= 1;
}

/// "METHOD TARGET HTTP/1.x"
bool parseRequestLine(std::string_view line, RequestHead* head) {
    const size_t first = line.find(' ');
    const size_t last = line.rfind(' ');
    if (first == std::string_view::npos || first == 0 || last <= first + 1)
        return false;

    head->method = line.substr(0, first);
    head->target = line.substr(first + 1, last - first - 1);
    const std::string_view version = line.substr(last + 1);
    head->keeps_connection = version == "HTTP/1.1";
    return head->target.find(' ') == std::string::npos && (version == "HTTP/1.1" || version == "HTTP/1.0");
}

/// Finds out how long the body is. False when that cannot be said, or is said twice.
bool parseBodyLength(RequestHead* head) {
    const std::string* length = findField(head->fields, "content-length");
    const std::string* encoding = findField(head->fields, "transfer-encoding");
    if (!hasAtMostOne(head->fields, "content-length") || !hasAtMostOne(head->fields, "transfer-encoding"))
        return false;

    if (encoding != nullptr) {
        head->is_chunked = true;
        return length == nullptr && toLowerCase(*encoding) == "chunked";
    }
    const std::optional<uint64_t> number = length != nullptr ? parseNumber(*length, 10) : 0;
    head->content_length = number.value_or(0);
    return number.has_value();
}

bool hasField(const Answer& answer, std::string_view name) {
    return std::any_of(answer.headers.begin(), answer.headers.end(),
                       [name](const auto& header) { return toLowerCase(header.first) == name; });
}

} // namespace

std::optional<RequestHead> parseRequestHead(std::string_view head) {
    RequestHead result;
    const size_t line_end = std::min(head.find(kLineEnd), head.size());
    if (!parseRequestLine(head.substr(0, line_end), &result))
        return std::nullopt;

    head.remove_prefix(std::min(line_end + kLineEnd.size(), head.size()));
    const std::string lines = head.empty() ? "" : std::string(head).append(kLineEnd);
    std::optional<HeaderFields> fields = parseHeaderFields(lines);
    if (!fields)
        return std::nullopt;

    result.fields = std::move(*fields);
    if (!parseBodyLength(&result))
        return std::nullopt;

    if (lowerCaseField(result.fields, "connection") == "close")
        result.keeps_connection = false;
    result.expects_continue = lowerCaseField(result.fields, "expect") == "100-continue";
    return result;
}

std::optional<uint64_t> parseChunkSize(std::string_view line) {
    return parseNumber(line.substr(0, line.find(';')), 16); // extensions follow the semicolon
}

std::string formatResponse(const Answer& answer, const std::string& request_method) {
    constexpr int kNoContent = 204;
    constexpr int kNotModified = 304;
    const bool can_have_body = answer.status != kNoContent && answer.status != kNotModified;

    std::string text = "HTTP/1.1 " + std::to_string(answer.status) + " \r\n"; // the reason may be empty
    for (const auto& [name, value] : answer.headers)
        text.append(name).append(": ").append(value).append(kLineEnd);
    if (can_have_body && !hasField(answer, "content-length") && !hasField(answer, "transfer-encoding"))
        text += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
    text += kLineEnd;
    if (can_have_body && request_method != "HEAD")
        text += answer.body;
    return text;
}

bool closesConnection(const Answer& answer) {
    return std::any_of(answer.headers.begin(), answer.headers.end(), [](const auto& header) {
        return toLowerCase(header.first) == "connection" && toLowerCase(header.second) == "close";
    });
}

} // namespace vantor::test
