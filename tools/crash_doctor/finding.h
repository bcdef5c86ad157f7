#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vantor::tools {

enum class Level {
    Ok,
    Slow, ///< works, and takes longer than it should
    Warn, ///< works here and now, and may not another time
    Fail, ///< stops a report, or keeps it from arriving
};

/// What was looked at, what was seen there, and what to do about it.
struct Finding {
    Level level = Level::Ok;
    std::string subject; ///< a word or two
    std::string text;    ///< sentences without a line feed
};

using Findings = std::vector<Finding>;

/// One line, ready to be printed: "FAIL  crash directory: ...".
std::string lineOf(const Finding& finding);

/// An error of the system's in words.
std::string errorText(int error);

/// The value of a line "NAME:\tVALUE" of /proc/self/status; "" when there is none.
std::string ownStatus(std::string_view name);

/// A file's first line; "" when it cannot be read.
std::string firstLine(const std::string& path);

} // namespace vantor::tools
