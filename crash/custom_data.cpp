#include "crash/custom_data.h"

#include "crash/crash_handler.h"
#include "crash/globals.h"

#include "client/linux/crash_generation/client_info.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <sys/ptrace.h>
#include <sys/wait.h>

using vantor::crash::CustomDataDescriptor;
using vantor::crash::CustomDataEntry;

namespace {

/// The text from `field` to its NUL. A field that has none runs on into what follows, and the last one of all
/// ends with the records.
std::string textAt(const char* field, const std::vector<CustomDataEntry>& records) {
    const char* end = reinterpret_cast<const char*>(records.data() + records.size());
    return std::string(field, strnlen(field, static_cast<size_t>(end - field)));
}

} // namespace

void attachToProcess(int pid) {
    (void)ptrace(PTRACE_ATTACH, pid, nullptr, nullptr);
    (void)waitpid(pid, nullptr, 0);
}

void detachFromProcess(int pid) {
    (void)ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
}

void readDataFromProcess(int pid, unsigned long address, void* buffer, unsigned long length) {
    if (address + length <= address)
        return;

    for (unsigned long offset = 0; offset < length; offset += sizeof(long)) {
        errno = 0;
        const long word = ptrace(PTRACE_PEEKDATA, pid, reinterpret_cast<void*>(address + offset), nullptr);
        std::memcpy(static_cast<char*>(buffer) + offset, &word, sizeof(word)); // all ones where it failed
    }
}

void readCustomData(unsigned long address, int pid, std::vector<CustomDataEntry>* out) {
    attachToProcess(pid);

    CustomDataDescriptor descriptor = {.count = 0, .reserved = 0, .entries = 0};
    readDataFromProcess(pid, address, &descriptor, sizeof(descriptor));
    if (descriptor.count == 0 || descriptor.entries == 0) {
        fprintf(stderr, "Could not read custom data from process!\n");
    } else {
        // Owned by nothing: an exception below ends the process, and neither memory nor client matter any
        // more.
        const uint64_t count = descriptor.count;
        auto* records = new CustomDataEntry[count];
        readDataFromProcess(pid, descriptor.entries, records, count * sizeof(CustomDataEntry));
        for (uint64_t i = 0; i < count; ++i)
            out->push_back(records[i]);
        delete[] records;
    }

    detachFromProcess(pid);
}

void minidumpCallback(void* /*context*/, const google_breakpad::ClientInfo* clientInfo,
                      const std::string* dumpPath) {
    std::map<std::string, std::string> params;
    if (g_custom_data_addr != 0) {
        std::vector<CustomDataEntry> records;
        readCustomData(g_custom_data_addr, clientInfo->pid(), &records);
        for (const CustomDataEntry& record : records)
            params[textAt(record.name, records)] = textAt(record.value, records);
    }

    g_crash_handler->clientDump(clientInfo->pid(), *dumpPath, params);
}
