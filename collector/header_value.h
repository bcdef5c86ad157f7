#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::collector {

// The grammar that the headers of a form share.

/// How a quotation mark is written between quotation marks.
enum class Escapes {
    Percent,   ///< %22, as well as %0D and %0A for line ends: HTML's rule. A backslash is a plain character.
    Backslash, ///< \" and \\: the rule of mail, and of libcurl before 7.81
};

/// A header's value with its parameters, such as `form-data; name="crash"; filename="a.dmp"`.
struct HeaderValue {
    std::string value;                             ///< in lower case
    std::map<std::string, std::string> parameters; ///< names in lower case; values without their escapes
};

/// Takes the text after a header's colon apart. Empty when it is not well formed, or names a parameter twice.
std::optional<HeaderValue> parseHeaderValue(std::string_view text, Escapes escapes);

/// Whether the text can be a header's name, or a value without quotation marks.
bool isToken(std::string_view text);

/// ASCII letters alone.
std::string toLowerCase(std::string_view text);

} // namespace vantor::collector
