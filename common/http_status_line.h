#pragma once

#include <string_view>

namespace vantor {

/// Whether a line of an answer's header begins like a status line and is none, as "HTTP/x.1 500 No". libcurl
/// 7.88 takes such an answer for a 200.
bool isBrokenStatusLine(std::string_view line);

} // namespace vantor
