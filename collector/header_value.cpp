#include "collector/header_value.h"

#include <algorithm>
#include <span>

namespace vantor::collector {

namespace {

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t";
    const size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos)
        return {};

    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool isTokenCharacter(char character) {
    constexpr std::string_view kPunctuation = "!#$%&'*+-.^_`|~";
    return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'z') ||
           (character >= 'A' && character <= 'Z') || kPunctuation.find(character) != std::string_view::npos;
}

struct Escape {
    std::string_view text;
    char character;
};
constexpr Escape kPercentEscapes[] = {{"%22", '"'}, {"%0D", '\r'}, {"%0A", '\n'}};
constexpr Escape kBackslashEscapes[] = {{"\\\"", '"'}, {"\\\\", '\\'}};

/// The escape at the front of `text`; null when there is none.
const Escape* escapeAt(std::string_view text, Escapes escapes) {
    for (const Escape& escape : escapes == Escapes::Percent ? std::span<const Escape>(kPercentEscapes)
                                                            : std::span<const Escape>(kBackslashEscapes))
        if (text.starts_with(escape.text))
            return &escape;
    return nullptr;
}

/// Takes what stands between quotation marks, and the marks, off the front of `text`.
std::optional<std::string> takeQuoted(std::string_view* text, Escapes escapes) {
    std::string value;
    text->remove_prefix(1);
    while (!text->empty() && text->front() != '"') {
        const Escape* escape = escapeAt(*text, escapes);
        value += escape != nullptr ? escape->character : text->front();
        text->remove_prefix(escape != nullptr ? escape->text.size() : 1);
    }
    if (text->empty())
        return std::nullopt;

    text->remove_prefix(1);
    return value;
}

/// Takes a parameter's value off the front of `text`, up to the next semicolon.
std::optional<std::string> takeParameterValue(std::string_view* text, Escapes escapes) {
    if (text->starts_with('"'))
        return takeQuoted(text, escapes);

    const std::string_view word = text->substr(0, text->find(';'));
    text->remove_prefix(word.size());
    return isToken(trim(word)) ? std::optional<std::string>(trim(word)) : std::nullopt;
}

} // namespace

std::optional<HeaderValue> parseHeaderValue(std::string_view text, Escapes escapes) {
    HeaderValue result;
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
        std::optional<std::string> parameter = takeParameterValue(&text, escapes);
        if (!parameter || !result.parameters.emplace(toLowerCase(name), std::move(*parameter)).second)
            return std::nullopt;

        text = trim(text);
    }
    return text.empty() ? std::optional(std::move(result)) : std::nullopt;
}

bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

std::string toLowerCase(std::string_view text) {
    std::string result(text);
    for (char& character : result)
        if (character >= 'A' && character <= 'Z')
            character = static_cast<char>(character - 'A' + 'a');
    return result;
}

} // namespace vantor::collector
