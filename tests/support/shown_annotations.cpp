#include "tests/support/shown_annotations.h"

#include "crash/custom_data.h"

#include <cstring>
#include <vector>

namespace vantor::test {

using crash::CustomDataDescriptor;
using crash::CustomDataEntry;

namespace {

Params paramsOf(const CustomDataEntry* records, size_t count) {
    Params params;
    for (size_t i = 0; i < count; ++i) {
        const CustomDataEntry& record = records[i];
        const std::string name(record.name, strnlen(record.name, sizeof(record.name)));
        const std::string value(record.value, strnlen(record.value, sizeof(record.value)));
        if (!name.empty() && !value.empty())
            params[name] = value;
    }
    return params;
}

} // namespace

Params shownAnnotations(const CustomDataDescriptor* descriptor) {
    return paramsOf(reinterpret_cast<const CustomDataEntry*>(descriptor->entries), descriptor->count);
}

Params shownAnnotationsOfStopped(pid_t pid, const CustomDataDescriptor* address) {
    CustomDataDescriptor descriptor = {};
    readDataFromProcess(pid, reinterpret_cast<unsigned long>(address), &descriptor, sizeof(descriptor));
    std::vector<CustomDataEntry> records(descriptor.count);
    readDataFromProcess(pid, descriptor.entries, records.data(), records.size() * sizeof(CustomDataEntry));
    return paramsOf(records.data(), records.size());
}

Params shownAnnotationsOf(pid_t pid, const CustomDataDescriptor* address) {
    std::vector<CustomDataEntry> records;
    readCustomData(reinterpret_cast<unsigned long>(address), pid, &records);
    return paramsOf(records.data(), records.size());
}

} // namespace vantor::test
