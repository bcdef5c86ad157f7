#pragma once

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace vantor {

enum SplitOptions {
    kSplitKeepEmpty = 0, ///< "a,,b" has three pieces
    kSplitDropEmpty = 1, ///< "a,,b" has two pieces, and "" has none
};

/// Replaces `*out` by the pieces of `text` between the characters of `separators`, each of which separates by
/// itself.
void SplitString(const std::string& text, const char* separators, std::vector<std::string>* out,
                 SplitOptions options);
/// The same without copies: the pieces are parts of `text`, which must outlive them.
void SplitString(const std::string& text, const char* separators, std::vector<std::string_view>* out,
                 SplitOptions options);

/// What a default-formatted output stream makes of `value`: for an integer its plain decimal digits.
template <typename Value>
std::string toStringUsingStreamOperator(const Value& value) {
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

} // namespace vantor
