#include "common/strings.h"

namespace vantor {

void SplitString(const std::string& text, const char* separators, std::vector<std::string>* out,
                 SplitOptions options) {
    out->clear();
    size_t begin = 0;
    while (begin <= text.size()) {
        const size_t end = std::min(text.find_first_of(separators, begin), text.size());
        if (end > begin || options == kSplitKeepEmpty)
            out->push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
}

} // namespace vantor
