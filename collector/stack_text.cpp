#include "collector/stack_text.h"

#include <algorithm>

namespace vantor::collector {

namespace {

constexpr std::string_view kCrashReason = "Crash reason: ";
constexpr std::string_view kCrashedIn = "Crashed in: ";
constexpr std::string_view kFailure = "Walk failed: ";
constexpr std::string_view kMissing = "No symbols: ";

/// Takes the first line off `text` and returns it without its end.
std::string_view takeLine(std::string_view* text) {
    const size_t end = std::min(text->find('\n'), text->size());
    const std::string_view line = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return line;
}

/// Sets `*value` to what follows `label` in `line`, if it begins so.
bool readValue(std::string_view line, std::string_view label, std::string* value) {
    if (!line.starts_with(label))
        return false;

    *value = line.substr(label.size());
    return true;
}

} // namespace

std::string escaped(std::string_view text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7f) {
            result += c;
            continue;
        }
        result += "\\x";
        result += kDigits[byte >> 4U];
        result += kDigits[byte & 0xfU];
    }
    return result;
}

std::string failedWalkText(std::string_view why) {
    return std::string(kFailure) + escaped(why) + "\n";
}

std::string withParameters(std::string_view text, const std::map<std::string, std::string>& params) {
    const size_t end_of_head = std::min(text.find("\n\n"), text.size());
    std::string result(text.substr(0, end_of_head));
    if (!result.ends_with('\n'))
        result += '\n';
    result += params.empty() ? "\nParameters: none\n" : "\nParameters:\n";
    for (const auto& [name, value] : params)
        result += "  " + escaped(name) + ": " + escaped(value) + "\n";
    if (end_of_head < text.size())
        result += text.substr(end_of_head + 1);
    return result;
}

StackSummary summaryOf(std::string_view text) {
    StackSummary summary;
    while (true) {
        const std::string_view line = takeLine(&text);
        if (line.empty())
            return summary; // the head ends here, or the text does
        (void)(readValue(line, kCrashReason, &summary.crash_reason) ||
               readValue(line, kCrashedIn, &summary.crashed_in) ||
               readValue(line, kFailure, &summary.failure));
    }
}

std::vector<SymbolModule> missingModulesOf(std::string_view text) {
    std::vector<SymbolModule> modules;
    while (!text.empty()) {
        std::string file_and_id;
        if (!readValue(takeLine(&text), kMissing, &file_and_id))
            continue;

        const size_t space = file_and_id.rfind(' ');
        if (space == std::string::npos)
            continue;

        const SymbolModule module = {file_and_id.substr(0, space), file_and_id.substr(space + 1)};
        if (isValid(module))
            modules.push_back(module);
    }
    return modules;
}

std::string missingModuleLine(const SymbolModule& module) {
    return std::string(kMissing) + module.file + " " + module.id + "\n";
}

} // namespace vantor::collector
