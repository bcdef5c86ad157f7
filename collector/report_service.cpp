#include "collector/report_service.h"

#include "collector/answers.h"
#include "collector/body_receivers.h"
#include "collector/incoming_report.h"
#include "collector/pages.h"
#include "collector/stack_text.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

namespace vantor::collector {

namespace {

constexpr size_t kListed = 100;
constexpr int64_t kMostSummaryBytes = 16'384; // of a stack trace: its head, in which the summary stands

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

HttpResponse refuse(const std::string& client, const Rejection& rejection) {
    printf("Refused a report from %s: %s\n", client.c_str(), rejection.reason.c_str());
    return refusal(rejection);
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
        return refuse(request.client, tooLarge("The form", m_limits.body_bytes));

    auto report = std::make_unique<IncomingReport>(m_store);
    IncomingReport& incoming = *report;
    const auto finish = [this, &incoming, client = request.client](std::optional<Rejection> rejection) {
        if (!rejection) {
            rejection = incoming.commit();
            announceIfWaiting(incoming.name()); // also after a failure: it may be there all the same
        }
        if (!rejection)
            return textAnswer(200, "Stored " + incoming.name() + ".");
        return refuse(client, *rejection);
    };
    return std::make_unique<FormReceiver>(*boundary, m_limits, std::move(report), finish);
}

/// A report that came again as it is has its stack trace already.
void ReportService::announceIfWaiting(const std::string& name) const {
    const std::optional<Report> report = m_store.find(name);
    if (report && !report->is_walked)
        m_on_stored(name);
}

HttpResponse ReportService::stackTrace(const std::string& path) const {
    const std::string name = std::filesystem::path(path).stem();
    const std::optional<Report> report = m_store.find(name);
    if (!report || stackPathOf(name) != path)
        return textAnswer(404, "There is no such report.");

    HttpResponse response;
    response.file = std::make_shared<Descriptor>(open(report->stack_path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!response.file->isOpen())
        return textAnswer(202, "The report is there, and its stack trace is not ready yet.");
    return response;
}

HttpResponse ReportService::list() const {
    std::vector<ReportLine> lines;
    for (const Report& report : m_store.newest(kListed))
        lines.push_back(lineOf(report, m_store.stack(report.name, kMostSummaryBytes)));
    HttpResponse response;
    response.content_type = "text/html; charset=utf-8";
    response.body = reportListPage(lines);
    return response;
}

} // namespace vantor::collector
