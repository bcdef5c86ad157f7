// A client whose memory holds anything where its annotations should be. Its report is written, read back and
// judged: what is sent is what the memory says, or the report is rejected and no file is left.

#include "common/time.h"
#include "crash/crash_handler.h"
#include "crash/custom_data.h"
#include "crash/globals.h"
#include "crash/report_files.h"
#include "fuzz/require.h"
#include "tests/support/fake_http_uploader.h"
#include "tests/support/temporary_directory.h"

#include "client/linux/crash_generation/client_info.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

using namespace vantor::crash;
using vantor::Time;
using vantor::test::FakeHttpUploader;

namespace {

constexpr uint32_t kMostRecords = 8;
const std::string kStem = "0a1b2c3d-1111-2222-3333-444455556666";
const std::string kDumpName = "0a1b2c3d-1111-2222-3333-444455556666.dmp";

/// What the client and this process share; in the client it is the application's own memory.
struct Memory {
    CustomDataDescriptor descriptor;
    CustomDataEntry records[kMostRecords];
};

Memory* shareMemory() {
    void* const memory =
        mmap(nullptr, sizeof(Memory), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED);
    return static_cast<Memory*>(memory);
}

/// A process that does nothing, until this one ends.
pid_t startClient() {
    const pid_t pid = fork();
    if (pid == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (true)
            (void)pause();
    }
    require(pid > 0);
    return pid;
}

std::string now() {
    return std::to_string(Time::wallNow().nanoseconds());
}

/// The text at `field`, which ends with its NUL or with the records.
std::string textAt(const char* field, const Memory& memory) {
    const char* const end = reinterpret_cast<const char*>(memory.records + memory.descriptor.count);
    return std::string(field, std::find(field, end, '\0'));
}

/// What is to be sent of a report that was written at `time`.
ParamsVerdict expectedVerdict(const Memory& memory, const std::string& time) {
    std::map<std::string, std::string> params;
    if (memory.descriptor.entries != 0) {
        for (uint32_t i = 0; i < memory.descriptor.count; ++i)
            params[textAt(memory.records[i].name, memory)] = textAt(memory.records[i].value, memory);
    }
    params["time"] = time;
    std::string text;
    for (const auto& [name, value] : params)
        text += formatRecord(name, value);
    return judgeParams(text, kStem);
}

/// Line feeds may shift the time to where it is a name, or hide it behind another one.
bool isExpected(const std::map<std::string, std::string>& sent, const Memory& memory,
                const std::string& begin, const std::string& end) {
    std::vector<std::string> times = {begin};
    for (const auto& [name, value] : sent)
        times.insert(times.end(), {name, value});
    return std::any_of(times.begin(), times.end(), [&](const std::string& time) {
        return begin <= time && time <= end && sent == expectedVerdict(memory, time).upload_params;
    });
}

bool isUploadDisabled(const Memory& memory) {
    bool is_disabled = false;
    for (uint32_t i = 0; memory.descriptor.entries != 0 && i < memory.descriptor.count; ++i) {
        if (textAt(memory.records[i].name, memory) == "disable_upload")
            is_disabled = textAt(memory.records[i].value, memory) == "1";
    }
    return is_disabled;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Memory* const memory = shareMemory();
    static const pid_t client = startClient();
    static const vantor::test::TemporaryDirectory directory;
    if (size < 2)
        return 0;

    memory->descriptor = {.count = data[0] % (kMostRecords + 1),
                          .reserved = data[1],
                          .entries = data[1] % 16 != 0 ? reinterpret_cast<uint64_t>(memory->records) : 0};
    std::memset(static_cast<void*>(memory->records), 0, sizeof(memory->records));
    std::memcpy(static_cast<void*>(memory->records), data + 2, std::min(size - 2, sizeof(memory->records)));

    FakeHttpUploader::instance() = {};
    CrashHandler handler(directory.path(), false, {});
    g_crash_handler = &handler;
    g_custom_data_addr = reinterpret_cast<uint64_t>(&memory->descriptor);
    const std::string dump = directory / kDumpName;
    vantor::test::writeFile(dump, "MDMP");
    const google_breakpad::ClientInfo info(client, nullptr);
    const std::string begin = now();
    minidumpCallback(nullptr, &info, &dump);
    const std::string end = now();

    const auto& uploads = FakeHttpUploader::instance().uploads;
    if (isUploadDisabled(*memory) || !expectedVerdict(*memory, begin).complaint.empty()) {
        require(uploads.empty() && directory.names().empty());
        return 0;
    }
    require(uploads.size() == 1);
    require(isExpected(uploads[0].params, *memory, begin, end));
    FakeHttpUploader::instance().complete(0, 0);
    require(directory.names().empty());
    return 0;
}
