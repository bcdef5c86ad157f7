#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vantor::test {

/// Names, in lower case, and values, in the order in which they came.
using HeaderFields = std::vector<std::pair<std::string, std::string>>;

/// Takes the lines of a header apart: "Name: value", each ended by CR LF, and nothing else. The blanks around
/// a value are not part of it. Empty when a line is not well formed.
std::optional<HeaderFields> parseHeaderFields(std::string_view lines);

/// The first value of that (lower-case) name; null when there is none.
const std::string* findField(const HeaderFields& fields, std::string_view name);

/// A value such as `form-data; name="crash"; filename="a.dmp"`.
struct ParameterizedValue {
    std::string value; ///< in lower case
    HeaderFields parameters;
};

/// Empty when the text is not well formed. What stands between quotation marks is taken as it is: browsers
/// and libcurl write a quotation mark within a name as %22 and know no other escape.
std::optional<ParameterizedValue> parseParameterizedValue(std::string_view text);

std::string toLowerCase(std::string_view text);

} // namespace vantor::test
