#include "tests/support/received_reports.h"

#include "tests/support/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <ostream>
#include <string_view>
#include <unistd.h>

namespace vantor::test {
namespace {

constexpr std::string_view kDumpSuffix = ".dmp";

/// A report as a form brought it.
struct Report {
    std::string stem;
    const FormPart* dump = nullptr;
    std::string fields;
    size_t field_count = 0;
};

/// What is written below a stranger's name must not leave the directory, or hide in it.
bool isPlainStem(std::string_view stem) {
    constexpr std::string_view kAllowed = "0123456789abcdefABCDEF-";
    return !stem.empty() && stem.find_first_not_of(kAllowed) == std::string_view::npos;
}

bool isOneLine(std::string_view text) {
    return text.find('\n') == std::string_view::npos;
}

bool takeDump(const FormPart& part, Report* report) {
    const std::string_view name = *part.filename;
    if (report->dump != nullptr || !name.ends_with(kDumpSuffix))
        return false;

    report->dump = &part;
    report->stem = name.substr(0, name.size() - kDumpSuffix.size());
    return isPlainStem(report->stem);
}

bool takeField(const FormPart& part, Report* report) {
    if (!isOneLine(part.name) || !isOneLine(part.body))
        return false;

    report->fields += part.name + "\n" + part.body + "\n";
    ++report->field_count;
    return true;
}

/// Empty when the form is not that of a report.
std::optional<Report> parseReport(const std::vector<FormPart>& form) {
    Report report;
    const bool is_well_formed = std::all_of(form.begin(), form.end(), [&report](const FormPart& part) {
        return part.filename ? takeDump(part, &report) : takeField(part, &report);
    });
    return is_well_formed && report.dump != nullptr ? std::optional(std::move(report)) : std::nullopt;
}

bool writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor, bytes.data(), bytes.size());
        if (count == -1 && errno != EINTR)
            return false;
        bytes.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
    }
    return true;
}

} // namespace

ReceivedReports::ReceivedReports(std::string directory, std::ostream* log)
    : m_directory(std::move(directory)),
      m_log(log) {}

Answer ReceivedReports::receive(const ReceivedRequest& request) {
    const std::optional<Report> report = parseReport(request.form);
    if (!report)
        return Answer::status_code(400, "not a form with one dump of a plain name\n");

    const std::string name = report->stem + std::string(kDumpSuffix);
    if (!write(report->stem + ".fields", report->fields) || !write(name, report->dump->body))
        return Answer::status_code(500, "the report cannot be written\n");

    MutexLock lock(m_log_mutex);
    *m_log << "received " << name << " (" << report->dump->body.size() << " bytes, " << report->field_count
           << " fields)" << std::endl;
    return Answer::status_code(200);
}

/// Creates or replaces a file, as a whole or not at all.
bool ReceivedReports::write(const std::string& name, const std::string& content) const {
    std::string temporary = m_directory + "/.incoming-XXXXXX";
    const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.isOpen())
        return false;

    const std::string path = m_directory + "/" + name;
    if (writeAll(file.get(), content) && rename(temporary.c_str(), path.c_str()) == 0)
        return true;

    (void)unlink(temporary.c_str()); // the failure is told already
    return false;
}

} // namespace vantor::test
