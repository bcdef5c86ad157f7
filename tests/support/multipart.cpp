#include "tests/support/multipart.h"

#include "tests/support/header_fields.h"

#include <algorithm>
#include <string_view>

namespace vantor::test {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kBlankLine = "\r\n\r\n";

/// Takes `expected` off the front of `text`; false when something else is there.
bool take(std::string_view* text, std::string_view expected) {
    if (!text->starts_with(expected))
        return false;

    text->remove_prefix(expected.size());
    return true;
}

std::optional<std::string> boundaryOf(const std::string& content_type) {
    constexpr size_t kLongestBoundary = 70; // the format's own limit
    const std::optional<ParameterizedValue> type = parseParameterizedValue(content_type);
    if (!type || type->value != "multipart/form-data")
        return std::nullopt;

    const std::string* boundary = findField(type->parameters, "boundary");
    if (boundary == nullptr || boundary->empty() || boundary->size() > kLongestBoundary)
        return std::nullopt;
    return *boundary;
}

/// What the header of a part says of it. Empty unless it is that of one named part of a form.
std::optional<FormPart> parsePartHeader(std::string_view header) {
    constexpr std::string_view kDisposition = "content-disposition";
    const std::optional<HeaderFields> fields = parseHeaderFields(header);
    if (!fields || std::count_if(fields->begin(), fields->end(),
                                 [&](const auto& field) { return field.first == kDisposition; }) != 1)
        return std::nullopt;

    const auto disposition = parseParameterizedValue(*findField(*fields, kDisposition));
    if (!disposition || disposition->value != "form-data")
        return std::nullopt;
    const std::string* name = findField(disposition->parameters, "name");
    if (name == nullptr)
        return std::nullopt;

    FormPart part;
    part.name = *name;
    if (const std::string* filename = findField(disposition->parameters, "filename"))
        part.filename = *filename;
    if (const std::string* type = findField(*fields, "content-type"))
        part.content_type = *type;
    return part;
}

/// A part: its header, an empty line, its body.
std::optional<FormPart> parsePart(std::string_view text) {
    const size_t header_end = text.find(kBlankLine);
    if (header_end == std::string_view::npos)
        return std::nullopt;

    std::optional<FormPart> part = parsePartHeader(text.substr(0, header_end + kLineEnd.size()));
    if (part)
        part->body = text.substr(header_end + kBlankLine.size());
    return part;
}

} // namespace

std::optional<std::vector<FormPart>> parseMultipart(const std::string& content_type,
                                                    const std::string& body) {
    const std::optional<std::string> boundary = boundaryOf(content_type);
    if (!boundary)
        return std::nullopt;

    const std::string delimiter = "\r\n--" + *boundary;
    std::string_view rest = body;
    if (!take(&rest, std::string_view(delimiter).substr(kLineEnd.size()))) // nothing stands before the first
        return std::nullopt;

    std::vector<FormPart> parts;
    while (take(&rest, kLineEnd)) {
        const size_t end = rest.find(delimiter);
        if (end == std::string_view::npos)
            return std::nullopt;

        std::optional<FormPart> part = parsePart(rest.substr(0, end));
        if (!part)
            return std::nullopt;

        parts.push_back(std::move(*part));
        rest.remove_prefix(end + delimiter.size());
    }
    const bool is_complete = take(&rest, "--") && (rest.empty() || rest == kLineEnd);
    return is_complete && !parts.empty() ? std::optional(std::move(parts)) : std::nullopt;
}

} // namespace vantor::test
