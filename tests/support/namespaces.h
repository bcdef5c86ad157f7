#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

namespace vantor::test {

/// Runs `tests` in a process of its own, inside PID, network and mount namespaces of its own, and ends the
/// program with the status that they return. To be called first of all in main, before there are threads.
///
/// Inside, every port of the loopback is free, $TMPDIR is a fresh file system in memory, /proc shows the
/// processes of the run alone, and an orphan's parent is process 1, as anywhere. When the tests are over, a
/// process that is still there after a few seconds fails the run and is named. Nothing outlives it.
///
/// Root needs nothing; everybody else needs a kernel that gives user namespaces to all. When the kernel
/// refuses, says so on standard error and ends with status 1.
[[noreturn]] void runInNamespaces(const std::function<int()>& tests);

/// How an orphan, a process whose parent ended first, has ended: a status as waitpid() gives it. Waits for
/// the end; empty when `limit` passed first. Only inside runInNamespaces(), on one thread, and once for each
/// process.
std::optional<int> waitForOrphan(pid_t pid, std::chrono::milliseconds limit = std::chrono::seconds(30));

/// "exit 0", "signal 11": a status as waitpid() gives it, in words.
std::string describeEnd(int wait_status);

} // namespace vantor::test
