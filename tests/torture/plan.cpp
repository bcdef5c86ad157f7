#include "tests/torture/plan.h"

#include "tests/torture/system_calls.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace vantor::torture {

namespace {

constexpr int kReferenceRuns = 3;

[[noreturn]] void giveUp(Run run, const std::string& why, const Observation& seen) {
    fprintf(stderr, "The run \"%s\" without a fault: %s\n%s\n", nameOf(run).c_str(), why.c_str(),
            describe(seen).c_str());
    exit(1);
}

void check(Run run, const Observation& seen) {
    const bool is_sent = seen.arrived.size() + seen.arrived_at_next.size() == 1;
    if (seen.signal != SIGSEGV || is_sent == (run == Run::Unwilling) || !seen.left_behind.empty())
        giveUp(run, "it does not end as it should", seen);
    std::string unknown;
    for (const auto& [key, count] : seen.counts) {
        if (faultsOf(key.second) == nullptr)
            unknown += " " + std::to_string(key.second);
    }
    if (!unknown.empty())
        giveUp(run, "no faults are known for these calls:" + unknown, seen);
}

/// Of an application without the library all is the tests' own but its server.
bool isOurs(Run run, Role role) {
    return run != Run::HandMade || role == Role::Server;
}

} // namespace

Plan makePlan(Scene& scene, Run run) {
    Plan plan = {run, {}, {}};
    for (int i = 0; i < kReferenceRuns; ++i) {
        const Observation seen = scene.perform(run, std::nullopt);
        check(run, seen);
        for (const auto& [key, count] : seen.counts)
            plan.counts[key] = std::max(plan.counts[key], count);
        if (i == 0)
            plan.before_main = seen.counts_before_main;
    }
    return plan;
}

std::vector<Fault> faultsOf(const Plan& plan) {
    std::vector<Fault> faults;
    for (const auto& [key, count] : plan.counts) {
        const auto& [role, call] = key;
        if (!isOurs(plan.run, role))
            continue;
        const auto before = role == Role::Application ? plan.before_main.find(key) : plan.before_main.end();
        const int first = before != plan.before_main.end() ? before->second + 1 : 1;
        for (int number = first; number <= count; ++number) {
            faults.push_back({plan.run, role, call, number, Fault::Kind::Kill});
            faults.push_back({plan.run, role, call, number, Fault::Kind::Stop});
            if (role != Role::Application)
                faults.push_back({plan.run, role, call, number, Fault::Kind::Bereave});
            for (const int error : faultsOf(call)->errors)
                faults.push_back({plan.run, role, call, number, Fault::Kind::Error, error});
        }
    }
    return faults;
}

} // namespace vantor::torture
