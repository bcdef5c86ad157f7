// A parameters file with any text, for a report with a name of any length: it is rejected with one of the
// words that the user knows, or it comes to parameters within the limits, which come to the same when they
// are written again.

#include "crash/report_files.h"
#include "fuzz/require.h"

#include <algorithm>
#include <cstddef>
#include <set>
#include <string>

using namespace vantor::crash;

namespace {

const std::set<std::string> kComplaints = {"Params file does not have an even number of lines!\n",
                                           "GUID not 36 chars!\n", "Name/value too long!\n"};

std::string textOf(const std::map<std::string, std::string>& params) {
    std::string text;
    for (const auto& [name, value] : params)
        text += formatRecord(name, value);
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;

    const std::string stem(data[0] % (2 * kGuidLength), 'a'); // half of them as they should be
    const std::string name = data[0] % 2 == 0 ? std::string(kGuidLength, 'a') : stem;
    const ParamsVerdict verdict = judgeParams(std::string(data + 1, data + size), name);
    if (!verdict.complaint.empty()) {
        require(kComplaints.contains(verdict.complaint) && verdict.upload_params.empty());
        return 0;
    }

    require(name.size() == kGuidLength && verdict.upload_params.contains("guid"));
    for (const auto& [key, value] : verdict.upload_params)
        require(!key.empty() && key.size() <= kMostNameBytes && !value.empty() &&
                value.size() <= kMostValueBytes);
    require(judgeParams(textOf(verdict.upload_params), name).upload_params == verdict.upload_params);
    return 0;
}
