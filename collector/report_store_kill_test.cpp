#include "collector/report_store.h"
#include "tests/support/printed_rejection.h"
#include "tests/support/temporary_directory.h"

#include <csignal>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::collector {
namespace {

using testing::AnyOf;
using testing::IsEmpty;

const std::string kName = "01234567-89ab-cdef-01234567-89abcdef";
const Params kOne = {{"a", "1"}};
const Params kTwo = {{"a", "1"}, {"b", "2"}};

/// A collector that is killed (kill -9) at each system call of a commit, one after the other.
class ReportStoreKillTest : public testing::Test {
protected:
    /// Runs `prepare`, then `act` in a process that dies at its n-th stop before or after a system call, then
    /// `check` on the store of a collector that starts anew, for every n. `check` is told whether `act` came
    /// to its end. Each n has a directory of its own.
    static void killAtEachCall(const std::function<void(ReportStore&)>& prepare,
                               const std::function<bool(ReportStore&)>& act,
                               const std::function<void(ReportStore&, bool)>& check) {
        int stops = 0;
        for (bool is_done = false; !is_done; ++stops) {
            SCOPED_TRACE("killed at stop " + std::to_string(stops));
            const test::TemporaryDirectory directory;
            {
                ReportStore store(directory.path());
                ASSERT_EQ(store.recover(), std::nullopt);
                prepare(store);
            }
            is_done = runAndKill(directory.path(), act, stops);
            ReportStore store(directory.path());
            ASSERT_EQ(store.recover(), std::nullopt);
            EXPECT_TRUE(std::filesystem::is_empty(directory / "incoming"));
            check(store, is_done);
        }
        EXPECT_GT(stops, 10); // else hardly anybody was killed
    }

    static std::optional<Rejection> commit(ReportStore& store, const std::string& dump,
                                           const Params& params) {
        const auto file = store.newIncomingFile();
        EXPECT_TRUE(file->write(dump));
        return store.commit(kName, *file, params);
    }

private:
    /// True when the process ended by itself, after `act` had succeeded.
    static bool runAndKill(const std::string& directory, const std::function<bool(ReportStore&)>& act,
                           int stops) {
        const pid_t pid = fork();
        if (pid == 0) {
            ReportStore store(directory);
            const bool is_ready = store.recover() == std::nullopt &&
                                  ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 && raise(SIGSTOP) == 0;
            _exit(is_ready && act(store) ? 0 : 1);
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        for (int i = 0; i < stops && WIFSTOPPED(status); ++i) {
            EXPECT_EQ(ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr), 0);
            EXPECT_EQ(waitpid(pid, &status, 0), pid);
        }
        if (WIFSTOPPED(status)) {
            EXPECT_EQ(kill(pid, SIGKILL), 0);
            EXPECT_EQ(waitpid(pid, &status, 0), pid);
            return false;
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        return true;
    }
};

TEST_F(ReportStoreKillTest, ANewReportIsThereAsAWholeOrNotAtAll) {
    killAtEachCall([](ReportStore&) {},
                   [](ReportStore& store) { return commit(store, "MDMP", kTwo) == std::nullopt; },
                   [](ReportStore& store, bool is_acknowledged) {
                       if (const auto report = store.find(kName)) {
                           EXPECT_EQ(test::readFile(report->dump_path), "MDMP");
                           EXPECT_EQ(store.params(kName), kTwo);
                           EXPECT_EQ(store.notWalked(), std::vector{kName});
                       } else {
                           EXPECT_FALSE(is_acknowledged);
                           EXPECT_THAT(store.notWalked(), IsEmpty());
                       }
                       EXPECT_EQ(commit(store, "MDMP", kTwo), std::nullopt);
                       EXPECT_EQ(store.params(kName), kTwo);
                   });
}

TEST_F(ReportStoreKillTest, AStackTraceNeverShowsOtherParametersThanTheReportHas) {
    killAtEachCall(
        [](ReportStore& store) {
            EXPECT_EQ(commit(store, "MDMP", kOne), std::nullopt);
            EXPECT_TRUE(store.storeStack(kName, "with one", kOne));
        },
        [](ReportStore& store) { return commit(store, "again", kTwo) == std::nullopt; },
        [](ReportStore& store, bool is_acknowledged) {
            const auto report = store.find(kName);
            ASSERT_TRUE(report);
            EXPECT_EQ(test::readFile(report->dump_path), "MDMP");
            EXPECT_THAT(store.params(kName), AnyOf(kOne, kTwo));
            if (is_acknowledged || report->is_walked) {
                EXPECT_EQ(store.params(kName), is_acknowledged ? kTwo : kOne);
            }
            EXPECT_EQ(store.notWalked().size(), report->is_walked ? 0u : 1u);
        });
}

TEST_F(ReportStoreKillTest, AStackTraceIsThereAsAWholeOrNotAtAll) {
    killAtEachCall([](ReportStore& store) { EXPECT_EQ(commit(store, "MDMP", kOne), std::nullopt); },
                   [](ReportStore& store) { return store.storeStack(kName, "frames", kOne); },
                   [](ReportStore& store, bool is_stored) {
                       const auto report = store.find(kName);
                       ASSERT_TRUE(report);
                       EXPECT_EQ(test::readFile(report->stack_path), report->is_walked ? "frames" : "");
                       EXPECT_TRUE(report->is_walked || !is_stored);
                   });
}

} // namespace
} // namespace vantor::collector
