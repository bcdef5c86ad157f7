#include "common/http_status_line.h"

#include <algorithm>
#include <strings.h>

namespace vantor {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// In `pattern`, '#' stands for a digit.
bool beginsLike(std::string_view pattern, std::string_view line) {
    return line.size() >= pattern.size() &&
           std::equal(pattern.begin(), pattern.end(), line.begin(), [](char wanted, char found) {
               return wanted == '#' ? isDigit(found) : wanted == found;
           });
}

/// As libcurl looks for it, which reads the version and the status in capitals alone.
bool beginsWithProtocol(std::string_view line) {
    constexpr std::string_view kProtocol = "HTTP/";
    return line.size() >= kProtocol.size() &&
           strncasecmp(line.data(), kProtocol.data(), kProtocol.size()) == 0;
}

} // namespace

bool isBrokenStatusLine(std::string_view line) {
    if (!beginsWithProtocol(line))
        return false;

    for (const std::string_view pattern : {"HTTP/#.# ###", "HTTP/# ###"}) {
        if (beginsLike(pattern, line))
            return line.size() > pattern.size() && isDigit(line[pattern.size()]); // a fourth digit
    }
    return true;
}

} // namespace vantor
