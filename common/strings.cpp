#include "common/strings.h"

namespace vantor {

namespace {

/// Where the next separator stands, or the text's end.
size_t findSeparator(const std::string& text, const char* separators, size_t begin) {
    // A single character is looked for by memchr, in one go.
    const bool is_one = separators[0] != '\0' && separators[1] == '\0';
    return std::min(is_one ? text.find(separators[0], begin) : text.find_first_of(separators, begin),
                    text.size());
}

} // namespace

void SplitString(const std::string& text, const char* separators, std::vector<std::string_view>* out,
                 SplitOptions options) {
    out->clear();
    size_t begin = 0;
    while (begin <= text.size()) {
        const size_t end = findSeparator(text, separators, begin);
        if (end > begin || options == kSplitKeepEmpty)
            out->push_back(std::string_view(text).substr(begin, end - begin));
        begin = end + 1;
    }
}

void SplitString(const std::string& text, const char* separators, std::vector<std::string>* out,
                 SplitOptions options) {
    std::vector<std::string_view> pieces;
    SplitString(text, separators, &pieces, options);
    out->assign(pieces.begin(), pieces.end());
}

} // namespace vantor
