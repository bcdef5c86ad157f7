#include "collector/incoming_report.h"

#include "collector/minidump_check.h"

namespace vantor::collector {

namespace {

constexpr std::string_view kFileName = "crash";
constexpr std::string_view kDumpExtension = ".dmp";
constexpr const char* kCannotStore = "The dump cannot be stored";

/// Whether a text fits on a line of the parameters file, whose lines may have to pass through C.
bool isOneLine(const std::string& text) {
    constexpr std::string_view kForbidden("\n\0", 2);
    return text.find_first_of(kForbidden) == std::string::npos;
}

} // namespace

std::optional<Rejection> IncomingReport::beginFile(const std::string& name, const std::string& filename) {
    if (m_dump != nullptr)
        return bad("The form has more than one file.");
    if (name != kFileName)
        return bad("The form has a file that is not named \"crash\".");

    const std::string stem = filename.substr(0, filename.rfind(kDumpExtension));
    if (filename != stem + std::string(kDumpExtension) || !isReportName(stem))
        return bad(
            "The file's name is not 36 characters out of hexadecimal digits and dashes, and \".dmp\".");

    m_dump = m_store.newIncomingFile();
    if (m_dump == nullptr)
        return noStorage(kCannotStore);
    m_name = stem;
    return std::nullopt;
}

std::optional<Rejection> IncomingReport::fileData(std::string_view piece) {
    return m_dump->write(piece) ? std::nullopt : std::optional(noStorage(kCannotStore));
}

std::optional<Rejection> IncomingReport::endFile() {
    return checkMinidump(m_dump->descriptor());
}

std::optional<Rejection> IncomingReport::field(const std::string& name, const std::string& value) {
    if (name.empty())
        return bad("A field of the form has no name.");
    if (!isOneLine(name) || !isOneLine(value))
        return bad("A field of the form has a line feed or a NUL in its name or its value.");
    if (!m_params.emplace(name, value).second)
        return bad("A field stands in the form twice.");
    return std::nullopt;
}

std::optional<Rejection> IncomingReport::commit() {
    if (m_dump == nullptr)
        return bad("The form has no file that is named \"crash\".");

    std::erase_if(m_params,
                  [](const auto& param) { return param.second.empty(); }); // its file has no form for it
    return m_store.commit(m_name, *m_dump, m_params);
}

} // namespace vantor::collector
