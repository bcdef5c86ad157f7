#include "tests/support/header_fields.h"

#include <algorithm>
#include <cctype>

namespace vantor::test {
namespace {

constexpr std::string_view kLineEnd = "\r\n";

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t";
    const size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos)
        return {};

    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool isTokenCharacter(char character) {
    constexpr std::string_view kPunctuation = "!#$%&'*+-.^_`|~";
    return std::isalnum(static_cast<unsigned char>(character)) != 0 ||
           kPunctuation.find(character) != std::string_view::npos;
}

bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool isOneLine(std::string_view text) {
    constexpr std::string_view kForbidden("\r\n\0", 3);
    return text.find_first_of(kForbidden) == std::string_view::npos;
}

/// Takes the value of a parameter off the front of `text`: a word, or anything between quotation marks.
std::optional<std::string> takeParameterValue(std::string_view* text) {
    const bool is_quoted = text->starts_with('"');
    if (is_quoted)
        text->remove_prefix(1);
    const size_t end = text->find(is_quoted ? '"' : ';');
    if (is_quoted && end == std::string_view::npos)
        return std::nullopt;

    const std::string_view value = text->substr(0, end);
    text->remove_prefix(value.size() + (is_quoted ? 1 : 0));
    if (is_quoted)
        return std::string(value);
    const std::string_view word = trim(value);
    return isToken(word) ? std::optional<std::string>(word) : std::nullopt;
}

} // namespace

std::optional<HeaderFields> parseHeaderFields(std::string_view lines) {
    HeaderFields fields;
    while (!lines.empty()) {
        const size_t end = lines.find(kLineEnd);
        if (end == std::string_view::npos)
            return std::nullopt;

        const std::string_view line = lines.substr(0, end);
        lines.remove_prefix(end + kLineEnd.size());
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos || !isToken(line.substr(0, colon)) || !isOneLine(line))
            return std::nullopt;

        fields.emplace_back(toLowerCase(line.substr(0, colon)), trim(line.substr(colon + 1)));
    }
    return fields;
}

const std::string* findField(const HeaderFields& fields, std::string_view name) {
    const auto found =
        std::find_if(fields.begin(), fields.end(), [name](const auto& field) { return field.first == name; });
    return found != fields.end() ? &found->second : nullptr;
}

std::optional<ParameterizedValue> parseParameterizedValue(std::string_view text) {
    ParameterizedValue result;
    const std::string_view value = text.substr(0, text.find(';'));
    result.value = toLowerCase(trim(value));
    text.remove_prefix(value.size());
    while (text.starts_with(';')) {
        text.remove_prefix(1);
        const size_t equals = text.find('=');
        const std::string_view name = trim(text.substr(0, equals));
        if (equals == std::string_view::npos || !isToken(name))
            return std::nullopt;

        text.remove_prefix(equals + 1);
        std::optional<std::string> parameter = takeParameterValue(&text);
        if (!parameter)
            return std::nullopt;

        result.parameters.emplace_back(toLowerCase(name), std::move(*parameter));
        text = trim(text);
    }
    return text.empty() ? std::optional(std::move(result)) : std::nullopt;
}

std::string toLowerCase(std::string_view text) {
    std::string result(text);
    for (char& character : result)
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    return result;
}

} // namespace vantor::test
