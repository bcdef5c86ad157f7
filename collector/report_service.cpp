#include "collector/report_service.h"

#include "collector/answers.h"
#include "collector/body_receivers.h"
#include "collector/incoming_report.h"
#include "collector/pages.h"
#include "collector/stack_text.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <sys/stat.h>

namespace vantor::collector {

namespace {

constexpr size_t kListed = 100;

/// When a report's dump was written, in UTC.
std::string arrivalOf(const Report& report) {
    struct stat status = {};
    tm parts = {};
    std::array<char, 32> text = {};
    if (stat(report.dump_path.c_str(), &status) == 0 && gmtime_r(&status.st_mtime, &parts) != nullptr)
        (void)strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts); // it fits
    return text.data();
}

ReportLine lineOf(const Report& report, const std::optional<std::string>& stack) {
    ReportLine line = {
        .name = report.name, .arrived = arrivalOf(report), .crash_reason = "", .crashed_in = ""};
    if (!stack)
        return line;

    const StackSummary summary = summaryOf(*stack);
    line.crash_reason = summary.failure.empty() ? summary.crash_reason : "Walk failed: " + summary.failure;
    line.crashed_in = summary.crashed_in;
    return line;
}

} // namespace

ReportService::ReportService(ReportStore& store, const FormLimits& limits,
                             std::function<void(const std::string&)> on_stored)
    : m_store(store),
      m_limits(limits),
      m_on_stored(std::move(on_stored)) {}

HttpDecision ReportService::receive(const HttpRequest& request) const {
    const std::optional<std::string> boundary = boundaryOf(request.content_type);
    if (!boundary)
        return textAnswer(400, "A report is a form of the type multipart/form-data.");
    if (request.content_length.value_or(0) > m_limits.body_bytes)
        return refusal(tooLarge("The form", m_limits.body_bytes));

    auto report = std::make_unique<IncomingReport>(m_store);
    IncomingReport& incoming = *report;
    return std::make_unique<FormReceiver>(*boundary, m_limits, std::move(report), [this, &incoming] {
        if (const std::optional<Rejection> rejection = incoming.commit())
            return refusal(*rejection);
        m_on_stored(incoming.name());
        return textAnswer(200, "Stored " + incoming.name() + ".");
    });
}

HttpResponse ReportService::stackTrace(const std::string& path) const {
    const std::string name = std::filesystem::path(path).stem();
    const std::optional<Report> report = m_store.find(name);
    if (!report || stackPathOf(name) != path)
        return textAnswer(404, "There is no such report.");

    const std::optional<std::string> text = m_store.stack(name);
    if (!text)
        return textAnswer(202, "The report is there, and its stack trace is not ready yet.");
    HttpResponse response;
    response.body = *text;
    return response;
}

HttpResponse ReportService::list() const {
    std::vector<ReportLine> lines;
    for (const Report& report : m_store.newest(kListed))
        lines.push_back(lineOf(report, m_store.stack(report.name)));
    HttpResponse response;
    response.content_type = "text/html; charset=utf-8";
    response.body = reportListPage(lines);
    return response;
}

} // namespace vantor::collector
