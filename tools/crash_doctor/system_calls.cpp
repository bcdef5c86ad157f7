#include "tools/crash_doctor/surroundings.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::tools {

namespace {

int errorOf(long result) {
    return result >= 0 ? 0 : errno;
}

// The trials: each runs in a child of its own and answers with 0 or an error.

/// Without a memory in common, which the library's processes have: filters do not look at that.
int tryClone() {
    const long pid = syscall(SYS_clone, CLONE_FILES, nullptr, nullptr, nullptr, 0UL);
    if (pid == 0)
        (void)syscall(SYS_exit_group, 0);
    return pid > 0 ? errorOf(waitpid(static_cast<pid_t>(pid), nullptr, __WALL)) : errno;
}

/// A child that does nothing, until `pipe` has no writer any more: until the trial has ended, however it
/// ends.
pid_t forkSleeper(const std::array<int, 2>& pipe) {
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    (void)close(pipe[1]);
    char byte = 0;
    (void)!read(pipe[0], &byte, 1); // nobody ever writes
    _exit(0);
}

int tryPtrace() {
    std::array<int, 2> ends = {-1, -1};
    const pid_t traced = pipe(ends.data()) == 0 ? forkSleeper(ends) : -1;
    if (traced < 0)
        return errno;
    const int error = errorOf(ptrace(PTRACE_ATTACH, traced, nullptr, nullptr));
    (void)kill(traced, SIGKILL);
    (void)waitpid(traced, nullptr, 0);
    return error;
}

int tryPidfdOpen() {
    return errorOf(syscall(SYS_pidfd_open, getpid(), 0));
}

int tryCloseRange() {
    constexpr unsigned kOpenToNobody = 1'000'000'000;
    return errorOf(syscall(SYS_close_range, kOpenToNobody, ~0U, 0));
}

int tryInotify() {
    const int watch = inotify_init1(IN_CLOEXEC);
    return watch >= 0 ? errorOf(inotify_add_watch(watch, "/", IN_CREATE)) : errno;
}

int tryProcessVmReadv() {
    char from = 1;
    char to = 0;
    const iovec here = {&to, 1};
    const iovec there = {&from, 1};
    return errorOf(process_vm_readv(getpid(), &here, 1, &there, 1, 0));
}

int tryPtracer() {
    const int error = errorOf(prctl(PR_SET_PTRACER, static_cast<unsigned long>(getppid())));
    return error == EINVAL ? 0 : error; // a kernel without Yama, which needs no permission
}

/// The most that are there at one time: guardian, server with its threads, companion, writer.
int tryManyProcesses() {
    constexpr int kCount = 8;
    std::array<int, 2> ends = {-1, -1};
    int error = errorOf(pipe(ends.data()));
    for (int i = 0; i < kCount && error == 0; ++i)
        error = errorOf(forkSleeper(ends));
    return error;
}

struct Trial {
    const char* name;
    int (*run)();
    Level level;
    const char* consequence;
};

const Trial kTrials[] = {
    {"clone", tryClone, Level::Fail, "no process can look after a crash server"},
    {"ptrace", tryPtrace, Level::Fail, "nobody can read a crashed process"},
    {"pidfd_open", tryPidfdOpen, Level::Warn, "a crash server that hangs is not noticed"},
    {"close_range", tryCloseRange, Level::Fail, "the crash server cannot be started"},
    {"inotify", tryInotify, Level::Warn, "a crash server that makes progress is taken for one that hangs"},
    {"process_vm_readv", tryProcessVmReadv, Level::Warn,
     "an application that executes another program keeps its crash server"},
    {"prctl(PR_SET_PTRACER)", tryPtracer, Level::Warn,
     "under Yama, the crash server may not read a crashed process"},
};

constexpr int kKilled = -1;

/// An error, or kKilled.
int outcomeOf(int (*trial)()) {
    const pid_t child = fork();
    if (child == 0)
        _exit(trial());
    if (child < 0)
        return errno;
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : kKilled;
}

std::string adviceFor(int outcome) {
    switch (outcome) {
    case EMFILE:
    case ENFILE:
        return "Close what uses them, or raise fs.inotify.max_user_instances (now " +
               firstLine("/proc/sys/fs/inotify/max_user_instances") + ") and the limit of descriptors.";
    case EAGAIN:
    case ENOMEM:
        return "Raise the limit (ulimit -u, or pids.max of the container), or close other programs.";
    case ENOSYS:
        return "Allow it in the sandbox; Linux has it since 5.9 at the latest.";
    default:
        return "Allow it in the sandbox (seccomp filter, security module).";
    }
}

Finding refused(const Trial& trial, int outcome) {
    const std::string how = outcome == kKilled ? "ends the caller by a signal" : errorText(outcome);
    return {trial.level, "system calls",
            std::string(trial.name) + ": " + how + ". So " + trial.consequence + ". " + adviceFor(outcome)};
}

Finding checkProcesses() {
    const int outcome = outcomeOf(tryManyProcesses);
    if (outcome == 0)
        return {Level::Ok, "processes", "8 more can be made"};
    return {Level::Fail, "processes",
            "8 more cannot be made: " + (outcome == kKilled ? "killed" : errorText(outcome)) + ". " +
                adviceFor(outcome)};
}

} // namespace

Findings trySystemCalls() {
    Findings findings;
    std::string allowed;
    for (const Trial& trial : kTrials) {
        const int outcome = outcomeOf(trial.run);
        if (outcome == 0)
            allowed += (allowed.empty() ? "" : ", ") + std::string(trial.name);
        else
            findings.push_back(refused(trial, outcome));
    }
    const std::string mode = ownStatus("Seccomp") == "2" ? "a seccomp filter" : "no seccomp filter";
    findings.insert(findings.begin(),
                    {Level::Ok, "system calls", mode + ", allowed: " + (allowed.empty() ? "none" : allowed)});
    findings.push_back(checkProcesses());
    return findings;
}

} // namespace vantor::tools
