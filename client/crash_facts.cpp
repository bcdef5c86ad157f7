#include "client/crash_facts.h"

#include "client/abort_message.h"
#include "client/guarded_service.h"
#include "client/raw_files.h"
#include "client/raw_time.h"
#include "client/uncaught_exception.h"

#include <sys/prctl.h>
#include <unistd.h>

namespace vantor::client {

namespace {

void addNumber(Annotations& annotations, std::string_view name, uint64_t number) {
    char digits[24];
    const size_t size = RawText(digits, sizeof(digits)).addNumber(number).size();
    annotations.addFact(name, {digits, size});
}

void addText(Annotations& annotations, std::string_view name, std::string_view text) {
    if (!text.empty())
        annotations.addFact(name, text);
}

unsigned restartsOf(const CrashPath& path) {
    return path.guardian != nullptr ? statusOf(*path.guardian).restarts : 0;
}

} // namespace

void addFacts(const CrashPath& path, Annotations& annotations) {
    char thread_name[16] = "";
    (void)prctl(PR_GET_NAME, thread_name); // cannot fail
    addText(annotations, "thread_name", thread_name);
    const int64_t uptime = rawTime(CLOCK_BOOTTIME) - path.start;
    addNumber(annotations, "uptime_seconds", static_cast<uint64_t>(uptime / kNanosecondsPerSecond));
    if (const unsigned restarts = restartsOf(path); restarts != 0)
        addNumber(annotations, "server_restarts", restarts);
    if (getpid() != path.application)
        addNumber(annotations, "forked_from", static_cast<uint64_t>(path.application));
    addText(annotations, "abort_message", abortMessage());
    addText(annotations, "exception", uncaughtException());
}

} // namespace vantor::client
