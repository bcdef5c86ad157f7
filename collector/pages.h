#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vantor::collector {

/// One line of the list of reports.
struct ReportLine {
    std::string name;
    std::string arrived;      ///< date and time, as it is shown
    std::string crash_reason; ///< "" as long as the report is not walked
    std::string crashed_in;
};

/// `text` as it can stand in HTML, in an attribute too.
std::string escapeHtml(std::string_view text);

/// The path of a report's stack trace, as the crash server prints it behind its base URL.
std::string stackPathOf(const std::string& name);

/// The page with these reports, each linked to its stack trace.
std::string reportListPage(const std::vector<ReportLine>& lines);

} // namespace vantor::collector
