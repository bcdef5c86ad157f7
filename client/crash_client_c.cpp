#include "client/alternate_stack.h"
#include "client/service.h"
#include "client/status.h"

#include <cstdio>
#include <vantor/crash_client_c.h>

using vantor::client::Service;
using vantor::client::statusOf;

namespace {

/// What `call` makes of the service.
template <typename Call>
VantorCrashStatus withService(const Call& call) {
    Service* const service = Service::get();
    return service != nullptr ? call(*service) : VANTOR_CRASH_NOT_STARTED;
}

std::string_view textOf(const char* text) {
    return text != nullptr ? text : "";
}

VantorCrashStatus tell(VantorCrashStatus status, const std::string& sentence, char* problem,
                       size_t problem_size) {
    if (problem != nullptr && problem_size != 0)
        (void)snprintf(problem, problem_size, "%s", sentence.c_str());
    return status;
}

} // namespace

void vantor_crash_default_options(VantorCrashOptions* options) {
    *options = {};
    options->size = sizeof(*options);
    options->annotation_capacity = vantor::client::Annotations::kDefaultCapacity;
    options->deadline_ms = 5'000;
    options->start_deadline_ms = 10'000;
    options->most_reports = 100;
    options->most_megabytes = 500;
    options->most_crashes_per_hour = 30;
    options->consent = 1;
}

VantorCrashStatus vantor_crash_start(const VantorCrashOptions* options, char* problem, size_t problem_size) {
    VantorCrashOptions defaults;
    vantor_crash_default_options(&defaults);
    std::string sentence;
    const VantorCrashStatus status = Service::start(options != nullptr ? *options : defaults, &sentence);
    return tell(status, sentence, problem, problem_size);
}

VantorCrashStatus vantor_crash_stop(void) {
    return withService([](Service& service) {
        service.stop();
        return VANTOR_CRASH_OK;
    });
}

VantorCrashStatus vantor_crash_set(const char* name, const char* value) {
    return withService(
        [=](Service& service) { return statusOf(service.annotations().set(textOf(name), textOf(value))); });
}

VantorCrashStatus vantor_crash_clear(const char* name) {
    return withService([=](Service& service) { return statusOf(service.annotations().clear(textOf(name))); });
}

VantorCrashStatus vantor_crash_log(const char* line) {
    return withService(
        [=](Service& service) { return statusOf(service.annotations().log().add(textOf(line))); });
}

VantorCrashStatus vantor_crash_set_consent(int consent) {
    return withService([=](Service& service) { return service.setConsent(consent != 0); });
}

VantorCrashStatus vantor_crash_guard_thread(void) {
    return withService([](Service&) {
        return vantor::client::giveAlternateStack() ? VANTOR_CRASH_OK : VANTOR_CRASH_NO_MEMORY;
    });
}

VantorCrashStatus vantor_crash_dump(char* report) {
    if (report != nullptr)
        *report = '\0';
    return withService([=](Service& service) { return service.dump(report); });
}

VantorCrashStatus vantor_crash_health(VantorCrashHealth* health) {
    return withService([=](const Service& service) {
        *health = service.health();
        return VANTOR_CRASH_OK;
    });
}

VantorCrashStatus vantor_crash_last_run(VantorCrashLastRun* last_run) {
    return withService([=](const Service& service) {
        *last_run = service.lastRun();
        return VANTOR_CRASH_OK;
    });
}

VantorCrashStatus vantor_crash_after_fork(char* problem, size_t problem_size) {
    std::string sentence = vantor_crash_explain(VANTOR_CRASH_NOT_STARTED);
    const VantorCrashStatus status =
        withService([&](Service& service) { return service.afterFork(&sentence); });
    return tell(status, sentence, problem, problem_size);
}
