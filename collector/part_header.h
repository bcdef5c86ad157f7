#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vantor::collector {

/// What the header of a form's part says.
struct PartHeader {
    std::string name;
    std::optional<std::string> filename; ///< absent: a field, not a file
};

/// Takes a part's header apart: lines that end with CR LF, without the empty one at the end. There must be
/// one Content-Disposition, form-data with a name; other lines are read over. Empty when it is not well
/// formed.
///
/// A name is taken as browsers and libcurl write it; where that makes no sense, as libcurl did before 7.81.
std::optional<PartHeader> parsePartHeader(std::string_view lines);

} // namespace vantor::collector
