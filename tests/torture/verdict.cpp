#include "tests/torture/verdict.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <set>
#include <sys/syscall.h>

namespace vantor::torture {

namespace {

using Kind = Fault::Kind;

/// A loss, or a report that lacks its annotations, that nobody can prevent; or that is how it shall be.
struct Cause {
    bool (*applies)(const Fault&, const Observation&);
    const char* sentence;
};

const Cause kLosses[] = {
    {[](const Fault& fault, const Observation& seen) {
         return fault.run == Run::HandMade && seen.had_to_be_killed;
     },
     "Without the library: the application waits for ever, for a server that hangs, or stopped by one that "
     "was "
     "killed."},
    {[](const Fault& fault, const Observation&) {
         return fault.run == Run::HandMade && fault.kind != Kind::Error;
     },
     "Without the library: nobody writes the report in the place of a server that was killed or stopped."},
    {[](const Fault& fault, const Observation&) {
         return fault.run == Run::Fallback && fault.role == Role::Companion &&
                (fault.kind != Kind::Error || fault.call == SYS_getrandom || fault.call == SYS_rename);
     },
     "There is no server, and the companion, which writes the report in its place, fails as well."},
    {[](const Fault& fault, const Observation&) {
         return fault.run == Run::Fallback && fault.role == Role::Application && fault.kind == Kind::Stop;
     },
     "There is no server, and the application was stopped as it was to permit the companion to read it."},
    {[](const Fault& fault, const Observation&) {
         return fault.run == Run::Fallback && fault.role == Role::Application && fault.call == SYS_clone;
     },
     "There is no server, and there can be no companion either."},
    {[](const Fault& fault, const Observation&) {
         return fault.run == Run::HandMade && fault.kind == Kind::Error;
     },
     "Without the library: the server could not write the dump or its parameters, and nobody else does."},
    {[](const Fault&, const Observation& seen) {
         return seen.answers.starts_with("5 ") || seen.answers.starts_with("6 ");
     },
     "The start failed and said so: there is no service."},
    {[](const Fault&, const Observation& seen) { return seen.answers.starts_with("19 "); },
     "The start said that reports cannot be kept: there is no crash directory."},
};

const Cause kLostAnnotations[] = {
    {[](const Fault& fault, const Observation&) {
         return fault.role == Role::Server && fault.call == SYS_ptrace;
     },
     "The server was refused the application's memory."},
    {[](const Fault& fault, const Observation&) {
         return fault.role == Role::Server && fault.call == SYS_write && fault.kind == Kind::Error;
     },
     "The disk did not take the server's parameters, and what it took is sent."},
    {[](const Fault& fault, const Observation&) {
         return fault.role == Role::Server && fault.call == SYS_newfstatat && fault.kind == Kind::Error;
     },
     "The server was not told how long its parameters are, and read none of them."},
    {[](const Fault& fault, const Observation&) {
         return fault.role == Role::Server && fault.call == SYS_read && fault.kind == Kind::Error;
     },
     "The server could not read where the annotations are, or the parameters that it had written."},
};

const char* sentenceFor(const Cause* begin, const Cause* end, const Fault& fault, const Observation& seen) {
    const Cause* const found =
        std::find_if(begin, end, [&](const Cause& cause) { return cause.applies(fault, seen); });
    return found != end ? found->sentence : nullptr;
}

Verdict wrong(const std::string& sentence) {
    return {Outcome::Wrong, sentence};
}

std::vector<Arrived> allArrived(const Observation& seen) {
    std::vector<Arrived> all = seen.arrived;
    all.insert(all.end(), seen.arrived_at_next.begin(), seen.arrived_at_next.end());
    all.insert(all.end(), seen.arrived_at_late.begin(), seen.arrived_at_late.end());
    return all;
}

std::vector<Arrived> wholeArrived(const Observation& seen) {
    std::vector<Arrived> whole = allArrived(seen);
    std::erase_if(whole, [](const Arrived& report) { return !isWholeDump(report.dump, SIGSEGV); });
    return whole;
}

bool wasApplicationEnded(const Fault& fault, const Observation& seen) {
    const bool was_killed =
        fault.kind == Kind::Bereave || (fault.kind == Kind::Kill && fault.role == Role::Application);
    const bool was_stopped = fault.kind == Kind::Stop && fault.role == Role::Application;
    return seen.signal == SIGKILL && (was_killed || (was_stopped && seen.had_to_be_killed));
}

/// What is wrong with the processes; "": nothing.
std::string judgeEnds(const Fault& fault, const Observation& seen) {
    // A guardian whose child was stopped before it became the server waits for it.
    const bool waits = fault.role == Role::Starter && fault.kind == Kind::Stop;
    if (!seen.left_behind.empty() && !waits)
        return "A process stays: " + seen.left_behind.front() + ".";
    if (seen.had_to_be_killed && !mayHang(fault))
        return "The application hangs.";
    if (seen.signal != 0 && seen.signal != SIGSEGV && !wasApplicationEnded(fault, seen) &&
        !(seen.had_to_be_killed && mayHang(fault)))
        return "The application ended by " + seen.end + ", and not by its own.";
    // Without its commands and answers, which are the tests' own, an application of the tests does not come
    // to its crash.
    const bool is_speechless =
        fault.role == Role::Application && (fault.call == SYS_read || fault.call == SYS_write);
    if (seen.signal == 0 && !is_speechless && fault.run != Run::HandMade)
        return "The application did not crash: " + seen.end + ".";
    return "";
}

/// What is wrong with the reports, wherever they are; "": nothing.
std::string judgeReports(const Fault& fault, const Observation& seen) {
    if (!seen.left.broken_pairs.empty())
        return "A dump that is not whole has parameters.";
    if (!seen.left.others.empty())
        return "A file stays that nobody sweeps: " + seen.left.others.front() + ".";

    std::set<std::string> names(seen.left.whole_dumps.begin(), seen.left.whole_dumps.end());
    names.insert(seen.left.pairs.begin(), seen.left.pairs.end());
    const std::vector<Arrived> arrived = wholeArrived(seen);
    for (const Arrived& report : arrived)
        names.insert(report.guid);
    if (names.size() > 1)
        return "There are two reports of one crash.";
    if (arrived.size() > 1 && fault.role != Role::Server && !seen.was_server_killed)
        return "The report was sent twice.";

    const CrashFiles& last = seen.left_at_last;
    if (!last.pairs.empty() || !last.broken_pairs.empty())
        return "A pair is not sent by the next start.";
    if (fault.run != Run::HandMade && !last.whole_dumps.empty())
        return "A whole dump is never sent.";
    return "";
}

Verdict judgeUnwilling(const Observation& seen) {
    if (!allArrived(seen).empty())
        return wrong("A report was sent without consent.");
    if (!seen.left.pairs.empty() || !seen.left.whole_dumps.empty())
        return wrong("A report is kept without consent.");
    return {Outcome::Unexpected};
}

Outcome outcomeOf(const Observation& seen) {
    if (allArrived(seen).size() > 1)
        return Outcome::Repeated;
    if (!seen.arrived.empty())
        return Outcome::Delivered;
    if (!seen.arrived_at_next.empty())
        return Outcome::Kept;
    return seen.arrived_at_late.empty() ? Outcome::Lost : Outcome::Completed;
}

Verdict judgeLoss(const Fault& fault, const Observation& seen) {
    if (seen.signal != SIGSEGV)
        return {Outcome::Unexpected};
    if (fault.run == Run::HandMade &&
        (!seen.left_at_last.whole_dumps.empty() || !seen.left_at_last.broken_dumps.empty()))
        return {Outcome::LoneDump};
    const char* const sentence = sentenceFor(std::begin(kLosses), std::end(kLosses), fault, seen);
    return sentence != nullptr ? Verdict{Outcome::Lost, sentence} : wrong("The report is lost.");
}

} // namespace

std::string nameOf(Outcome outcome) {
    static const std::map<Outcome, std::string> kNames = {
        {Outcome::Delivered, "delivered"}, {Outcome::Kept, "kept"},
        {Outcome::Completed, "completed"}, {Outcome::Repeated, "repeated"},
        {Outcome::LoneDump, "lone dump"},  {Outcome::Unexpected, "unexpected"},
        {Outcome::Lost, "lost"},           {Outcome::NotReached, "not reached"},
        {Outcome::Wrong, "WRONG"}};
    return kNames.at(outcome);
}

Verdict judge(const Fault& fault, const Observation& seen) {
    if (!seen.is_fault_done)
        return {Outcome::NotReached};
    for (const std::string& problem : {judgeEnds(fault, seen), judgeReports(fault, seen)}) {
        if (!problem.empty())
            return wrong(problem);
    }
    if (fault.run == Run::Unwilling)
        return judgeUnwilling(seen);
    if (wholeArrived(seen).size() != allArrived(seen).size())
        return wrong("A dump was sent that is not whole, or of another signal.");
    const Outcome outcome = outcomeOf(seen);
    if (outcome == Outcome::Lost)
        return judgeLoss(fault, seen);

    const std::vector<Arrived> arrived = allArrived(seen);
    const bool is_complete = fault.run == Run::HandMade || arrived.front().has_annotations;
    if (is_complete || outcome == Outcome::Completed)
        return {outcome};
    const char* const sentence =
        sentenceFor(std::begin(kLostAnnotations), std::end(kLostAnnotations), fault, seen);
    return sentence != nullptr ? Verdict{outcome, sentence} : wrong("The report lacks its annotations.");
}

} // namespace vantor::torture
