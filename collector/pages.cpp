#include "collector/pages.h"

namespace vantor::collector {

namespace {

constexpr const char* kHead = "<!DOCTYPE html>\n"
                              "<html lang=\"en\">\n"
                              "<head>\n"
                              "<meta charset=\"utf-8\">\n"
                              "<meta name=\"viewport\" content=\"width=device-width\">\n"
                              "<title>Crash reports</title>\n"
                              "<style>\n"
                              ":root { color-scheme: light dark }\n"
                              "body { font: 15px/1.5 system-ui, sans-serif; margin: 2rem }\n"
                              "table { border-collapse: collapse }\n"
                              "th, td { padding: .3rem 1.2rem .3rem 0; text-align: left; vertical-align: "
                              "top; overflow-wrap: anywhere }\n"
                              "th { border-bottom: 1px solid }\n"
                              "td { border-bottom: 1px solid #8884 }\n"
                              "td:nth-child(1), td:nth-child(4) { font: 13px/1.7 monospace }\n"
                              "td:nth-child(2) { white-space: nowrap }\n"
                              "</style>\n"
                              "</head>\n"
                              "<body>\n"
                              "<h1>Crash reports</h1>\n";

std::string rowOf(const ReportLine& line) {
    const std::string reason = line.crash_reason.empty() ? "(not walked yet)" : line.crash_reason;
    return "<tr><td><a href=\"" + escapeHtml(stackPathOf(line.name)) + "\">" + escapeHtml(line.name) +
           "</a></td><td>" + escapeHtml(line.arrived) + "</td><td>" + escapeHtml(reason) + "</td><td>" +
           escapeHtml(line.crashed_in) + "</td></tr>\n";
}

} // namespace

std::string escapeHtml(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&#39;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

std::string stackPathOf(const std::string& name) {
    return "/diagnostics/crashes/" + name.substr(0, 2) + "/" + name.substr(2, 2) + "/" + name + ".stack";
}

std::string reportListPage(const std::vector<ReportLine>& lines) {
    std::string page = kHead;
    if (lines.empty()) {
        page += "<p>None has arrived yet.</p>\n";
    } else {
        page += "<table>\n<tr><th>Report</th><th>Arrived (UTC)</th><th>Crash</th><th>In</th></tr>\n";
        for (const ReportLine& line : lines)
            page += rowOf(line);
        page += "</table>\n";
    }
    return page + "</body>\n</html>\n";
}

} // namespace vantor::collector
