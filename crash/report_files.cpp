#include "crash/report_files.h"

#include "common/file.h"
#include "common/strings.h"

#include <string_view>
#include <utility>
#include <vector>

namespace vantor::crash {

std::string paramsPathOf(const std::string& dump_path) {
    return File::stripExtension(dump_path) + ".params";
}

std::string dumpPathOf(const std::string& params_path) {
    return File::stripExtension(params_path) + ".dmp";
}

std::string stemOf(const std::string& path) {
    return File::stripExtension(File::basename(path));
}

std::string formatRecord(const std::string& name, const std::string& value) {
    if (name.empty() || value.empty())
        return "";
    return name + "\n" + value + "\n";
}

ParamsVerdict judgeParams(const std::string& text, const std::string& stem) {
    std::vector<std::string_view> lines;
    SplitString(text, "\n", &lines, kSplitDropEmpty);
    if (lines.size() % 2 != 0)
        return {"Params file does not have an even number of lines!\n", {}};
    if (stem.size() != kGuidLength)
        return {"GUID not 36 chars!\n", {}};

    std::map<std::string, std::string> upload_params;
    for (size_t i = 0; i < lines.size(); i += 2) {
        const std::string_view name = lines[i];
        const std::string_view value = lines[i + 1];
        if (name.size() > kMostNameBytes || value.size() > kMostValueBytes)
            return {"Name/value too long!\n", {}};
        upload_params.insert_or_assign(upload_params.end(), std::string(name), value); // in order as a rule
    }
    upload_params.try_emplace("guid", stem); // unless the file has one
    return {"", std::move(upload_params)};
}

} // namespace vantor::crash
