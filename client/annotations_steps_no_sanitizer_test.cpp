// Every instruction of a change. A traced child makes it in single steps. No sanitizer: it would be its
// instructions that are counted.

#include "client/annotations.h"
#include "tests/support/shown_annotations.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <functional>
#include <gmock/gmock.h>
#include <new>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using vantor::client::AnnotationError;
using vantor::client::Annotations;
using vantor::test::Params;
using vantor::test::shownAnnotations;
using vantor::test::shownAnnotationsOfStopped;

/// What parent and child both see.
template <typename Content>
class SharedMemory {
public:
    SharedMemory() : m_content(new (map()) Content()) {}
    ~SharedMemory() { munmap(m_content, sizeof(Content)); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    Content& operator*() { return *m_content; }
    Content* operator->() { return m_content; }

private:
    static void* map() {
        void* memory =
            mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(memory, MAP_FAILED);
        return memory;
    }

    Content* const m_content;
};

struct Progress {
    std::atomic<bool> has_begun;
    std::atomic<bool> has_ended;
};

/// A forked child whose first thread is traced and stops at its beginning. Killed at the end.
class TracedChild {
public:
    template <typename Body>
    explicit TracedChild(const Body& body) : m_pid(fork()) {
        if (m_pid == 0) {
            (void)ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            (void)raise(SIGSTOP);
            body();
            _exit(0);
        }
        EXPECT_EQ(waitForStop(), SIGSTOP);
    }
    ~TracedChild() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    TracedChild(const TracedChild&) = delete;
    TracedChild& operator=(const TracedChild&) = delete;

    pid_t pid() const { return m_pid; }

    /// The address of the instruction that comes next.
    long instruction() const { return ptrace(PTRACE_PEEKUSER, m_pid, offsetof(user, regs.rip), nullptr); }
    /// Runs one instruction.
    bool step() {
        EXPECT_EQ(ptrace(PTRACE_SINGLESTEP, m_pid, nullptr, nullptr), 0);
        return waitForStop() == SIGTRAP;
    }
    /// Runs to the next stop, beginning with the handler of `signal`; 0 when the child has ended.
    int resume(int signal = 0) {
        EXPECT_EQ(ptrace(PTRACE_CONT, m_pid, nullptr, signal), 0);
        return waitForStop();
    }

private:
    int waitForStop() {
        int status = 0;
        EXPECT_EQ(waitpid(m_pid, &status, 0), m_pid);
        return WIFSTOPPED(status) ? WSTOPSIG(status) : 0;
    }

    const pid_t m_pid;
};

struct Steps {
    int with_old = 0;
    int with_new = 0;
};

/// Makes `change` in a child, in single steps, and reads the table after each as the server would. Fails when
/// it is ever something other than before or after the change, or the old again after the new.
Steps stepThrough(Annotations& annotations, const std::function<AnnotationError()>& change) {
    SharedMemory<Progress> progress;
    SharedMemory<std::atomic<AnnotationError>> error;
    const Params old_params = shownAnnotations(annotations.descriptor());
    TracedChild child([&] {
        progress->has_begun = true;
        *error = change();
        progress->has_ended = true;
        (void)raise(SIGSTOP);
    });

    while (!progress->has_begun)
        if (!child.step())
            ADD_FAILURE() << "the child has ended";

    EXPECT_EQ(change(), AnnotationError::None); // here, to see what comes of it
    const Params new_params = shownAnnotations(annotations.descriptor());
    EXPECT_NE(old_params, new_params);

    Steps steps;
    while (!progress->has_ended && child.step()) {
        const Params params = shownAnnotationsOfStopped(child.pid(), annotations.descriptor());
        if (params == old_params && steps.with_new == 0) {
            ++steps.with_old;
        } else if (params == new_params) {
            ++steps.with_new;
        } else {
            ADD_FAILURE() << "torn after " << steps.with_old + steps.with_new
                          << " steps: " << testing::PrintToString(params);
            break;
        }
    }
    EXPECT_TRUE(progress->has_ended);
    EXPECT_EQ(*error, AnnotationError::None);
    return steps;
}

class AnnotationsStepsTest : public testing::Test {
protected:
    AnnotationsStepsTest() {
        EXPECT_EQ(Annotations::create({.capacity = 8, .log_lines = 3}, &m_annotations),
                  AnnotationError::None);
        for (const char* name : {"a", "b", "c"})
            set(name, std::string(100, *name));
        for (const char* line : {"line 1", "line 2"})
            EXPECT_EQ(m_annotations->log().add(line), AnnotationError::None);
        set("d", "1"); // each function has been called, so that the steps are not those of the dynamic linker
        EXPECT_EQ(m_annotations->clear("d"), AnnotationError::None);
    }

    void set(const std::string& name, const std::string& value) {
        EXPECT_EQ(m_annotations->set(name, value), AnnotationError::None);
    }
    void expectWholeAtEachStep(const char* what, const std::function<AnnotationError()>& change) {
        const Steps steps = stepThrough(*m_annotations, change);
        EXPECT_GT(steps.with_old, 50);
        EXPECT_GT(steps.with_new, 5);
        printf("%s: %d instructions, %d with the old table and %d with the new one\n", what,
               steps.with_old + steps.with_new, steps.with_old, steps.with_new);
    }

    std::unique_ptr<Annotations> m_annotations;
};

TEST_F(AnnotationsStepsTest, SetOfANewName) {
    expectWholeAtEachStep("set of a new name", [this] { return m_annotations->set("new", "value"); });
}

TEST_F(AnnotationsStepsTest, SetOfAnotherValue) {
    expectWholeAtEachStep("set of another value",
                          [this] { return m_annotations->set("b", std::string(200, '2')); });
}

TEST_F(AnnotationsStepsTest, SetAfterALine) {
    EXPECT_EQ(m_annotations->log().add("line 3"), AnnotationError::None);
    EXPECT_EQ(m_annotations->log().add("line 4"), AnnotationError::None);
    expectWholeAtEachStep("set after a line", [this] { return m_annotations->set("b", "2"); });
}

TEST_F(AnnotationsStepsTest, ClearOfTheFirst) {
    expectWholeAtEachStep("clear of the first", [this] { return m_annotations->clear("a"); });
}

TEST_F(AnnotationsStepsTest, ClearOfTheLast) {
    expectWholeAtEachStep("clear of the last", [this] { return m_annotations->clear("c"); });
}

TEST_F(AnnotationsStepsTest, ALineMore) {
    expectWholeAtEachStep("a line more", [this] { return m_annotations->log().add("line 3"); });
}

TEST_F(AnnotationsStepsTest, ALineInPlaceOfTheOldest) {
    EXPECT_EQ(m_annotations->log().add("line 3"), AnnotationError::None);
    expectWholeAtEachStep("a line in place of the oldest",
                          [this] { return m_annotations->log().add("line 4"); });
}

TEST(AnnotationsForkStepsTest, TheFirstChangeAloneGoesThroughAllAnnotations) {
    std::unique_ptr<Annotations> annotations;
    ASSERT_EQ(Annotations::create({.capacity = 50}, &annotations), AnnotationError::None);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(annotations->set(std::to_string(i), std::string(200, 'v')), AnnotationError::None);
    SharedMemory<std::atomic<int>> changes;
    TracedChild child([&] {
        for (const char* value : {"first", "second"})
            if (annotations->set("0", value) == AnnotationError::None)
                ++*changes;
    });

    const auto instructionsUntil = [&](int count) {
        int instructions = 0;
        while (*changes < count && child.step())
            ++instructions;
        EXPECT_EQ(*changes, count);
        return instructions;
    };
    const int first = instructionsUntil(1);
    EXPECT_LT(instructionsUntil(2), first / 2);
}

// A crash in the middle of a set(), at each of its instructions. In the child:

Annotations* g_annotations = nullptr;
std::atomic<int>* g_wrong = nullptr; // the number of the first thing that went wrong
std::atomic<int> g_asked = 0;        // how often the other thread was asked to set, and has answered
std::atomic<int> g_answered = 0;

void check(bool is_right, int number) {
    int none = 0;
    if (!is_right)
        g_wrong->compare_exchange_strong(none, number);
}

Params shown() {
    return shownAnnotations(g_annotations->descriptor());
}

/// A thread of the application that knows nothing of the crash.
void otherThread() {
    for (int served = 0;; ++served) {
        g_asked.wait(served);
        check(g_annotations->set("other", "1") == AnnotationError::Frozen, 1);
        ++g_answered;
    }
}

/// What the crash handler does.
void handleCrash() {
    g_annotations->freeze();
    const Params found = shown();
    check(found == Params{{"key", "old"}} || found == Params{{"key", "new"}}, 2);
    check(g_annotations->set("key", "handler") == AnnotationError::Frozen, 3);
    ++g_asked;
    g_asked.notify_one();
    while (g_answered != g_asked) // nobody hangs
        std::this_thread::yield();
    check(shown() == found, 4);
    g_annotations->thaw();
}

void onSignal(int /*signal*/) {
    handleCrash();
    (void)raise(SIGSTOP);
}

TEST(AnnotationsCrashTest, ASetterThatCrashesAtAnyInstructionHangsNobody) {
    std::unique_ptr<Annotations> annotations;
    ASSERT_EQ(Annotations::create({}, &annotations), AnnotationError::None);
    ASSERT_EQ(annotations->set("key", "old"), AnnotationError::None);
    SharedMemory<Progress> progress;
    SharedMemory<std::atomic<int>> wrong;
    g_annotations = annotations.get();
    g_wrong = &*wrong;
    TracedChild child([&] {
        (void)alarm(100); // instead of hanging
        std::thread(otherThread).detach();
        (void)signal(SIGUSR1, onSignal);
        progress->has_begun = true;
        check(annotations->set("key", "new") == AnnotationError::None, 5);
        progress->has_ended = true;
        check(shown() == Params{{"key", "new"}}, 6);
        (void)raise(SIGSTOP);
    });

    while (!progress->has_begun)
        ASSERT_TRUE(child.step());
    int crashes = 0;
    for (; !progress->has_ended; ++crashes) {
        const long interrupted = child.instruction();
        ASSERT_EQ(child.resume(SIGUSR1), SIGSTOP);
        ASSERT_EQ(*wrong, 0) << "after " << crashes << " instructions";
        while (child.instruction() != interrupted) // out of the handler
            ASSERT_TRUE(child.step());
        ASSERT_TRUE(child.step());
    }
    ASSERT_EQ(child.resume(), SIGSTOP);
    EXPECT_EQ(*wrong, 0);
    EXPECT_GT(crashes, 100);
    printf("%d crashes, one at each instruction\n", crashes);
}

} // namespace
