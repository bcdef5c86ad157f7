#include "collector/part_header.h"

#include "collector/header_value.h"

namespace vantor::collector {

namespace {

constexpr std::string_view kLineEnd = "\r\n";

bool isOneLine(std::string_view text) {
    constexpr std::string_view kForbidden("\r\n\0", 3);
    return text.find_first_of(kForbidden) == std::string_view::npos;
}

/// The value of the one Content-Disposition among well-formed lines.
std::optional<std::string_view> findDisposition(std::string_view lines) {
    std::optional<std::string_view> disposition;
    while (!lines.empty()) {
        const size_t end = lines.find(kLineEnd);
        const std::string_view line = lines.substr(0, end);
        const size_t colon = line.find(':');
        if (end == std::string_view::npos || colon == std::string_view::npos ||
            !isToken(line.substr(0, colon)) || !isOneLine(line))
            return std::nullopt;

        if (toLowerCase(line.substr(0, colon)) == "content-disposition") {
            if (disposition)
                return std::nullopt;
            disposition = line.substr(colon + 1);
        }
        lines.remove_prefix(end + kLineEnd.size());
    }
    return disposition;
}

} // namespace

std::optional<PartHeader> parsePartHeader(std::string_view lines) {
    const std::optional<std::string_view> text = findDisposition(lines);
    if (!text)
        return std::nullopt;

    // Nothing tells the two ways of writing apart but that the wrong one leaves the line malformed: to
    // today's, name="a\" is whole, and name="a\"b" is not.
    std::optional<HeaderValue> disposition = parseHeaderValue(*text, Escapes::Percent);
    if (!disposition)
        disposition = parseHeaderValue(*text, Escapes::Backslash);
    if (!disposition || disposition->value != "form-data" || !disposition->parameters.contains("name"))
        return std::nullopt;

    PartHeader header = {disposition->parameters["name"], std::nullopt};
    if (const auto found = disposition->parameters.find("filename"); found != disposition->parameters.end())
        header.filename = found->second;
    return header;
}

} // namespace vantor::collector
