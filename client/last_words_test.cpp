#undef NDEBUG // assertions are what is tested

#include "client/abort_message.h"
#include "client/uncaught_exception.h"

#include <cassert>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using vantor::client::abortMessage;
using vantor::client::findAbortMessage;
using vantor::client::ignoreUncaughtExceptions;
using vantor::client::uncaughtException;
using vantor::client::watchUncaughtExceptions;

int g_pipe[2];

void tell(std::string_view text) {
    [[maybe_unused]] const auto ignored = write(g_pipe[1], text.data(), text.size());
}

/// What the texts are at the moment of the abort, in a child: "exception|abort message".
std::string wordsOf(const std::function<void()>& body) {
    EXPECT_EQ(pipe(g_pipe), 0);
    const pid_t child = fork();
    if (child == 0) {
        (void)close(STDERR_FILENO); // the C library's own message
        (void)std::signal(SIGABRT, [](int) {
            tell(uncaughtException());
            tell("|");
            tell(abortMessage());
            _exit(0);
        });
        findAbortMessage();
        watchUncaughtExceptions();
        [&]() noexcept { body(); }(); // GoogleTest would catch exceptions
        _exit(1);
    }
    (void)close(g_pipe[1]);
    std::string words;
    char buffer[1024];
    for (ssize_t size = 0; (size = read(g_pipe[0], buffer, sizeof(buffer))) > 0;)
        words.append(buffer, static_cast<size_t>(size));
    (void)close(g_pipe[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return words;
}

TEST(LastWordsTest, AnUncaughtExceptionHasItsTypeAndText) {
    EXPECT_EQ(wordsOf([] { throw std::runtime_error("no disk"); }), "std::runtime_error: no disk|");
    EXPECT_EQ(wordsOf([] { std::thread([] { throw std::out_of_range("5"); }).join(); }),
              "std::out_of_range: 5|");
}

TEST(LastWordsTest, OneWithoutATextHasItsType) {
    EXPECT_EQ(wordsOf([] { throw 7; }), "int|");
}

TEST(LastWordsTest, ALongTextIsCut) {
    const std::string words = wordsOf([] { throw std::runtime_error(std::string(1000, 'x')); });
    EXPECT_EQ(words, "std::runtime_error: " + std::string(256 - 20, 'x') + "|");
}

TEST(LastWordsTest, AFailedAllocationIsAnException) {
    EXPECT_EQ(wordsOf([] { throw std::bad_alloc(); }), "std::bad_alloc: std::bad_alloc|");
}

TEST(LastWordsTest, TerminateAloneHasNoException) {
    EXPECT_EQ(wordsOf([] { std::terminate(); }), "|");
}

TEST(LastWordsTest, AFailedAssertionHasItsText) {
    const std::string words = wordsOf([] { assert(getpid() == 0); });
    EXPECT_TRUE(words.ends_with(": Assertion `getpid() == 0' failed.")) << words;
}

TEST(LastWordsTest, AbortAloneHasNoText) {
    EXPECT_EQ(wordsOf([] { std::abort(); }), "|");
}

TEST(LastWordsTest, TheEarlierTerminateHandlerIsCalledAndPutBack) {
    const auto leave = [] { _exit(0); };
    EXPECT_EQ(wordsOf([=] {
                  std::set_terminate(leave);
                  throw std::runtime_error("ours is not there any more");
              }),
              "");
    EXPECT_EQ(wordsOf([=] {
                  std::set_terminate(leave);
                  watchUncaughtExceptions();
                  throw std::runtime_error("it goes on to the earlier one");
              }),
              "");

    const std::terminate_handler earlier = std::get_terminate();
    watchUncaughtExceptions();
    EXPECT_NE(std::get_terminate(), earlier);
    ignoreUncaughtExceptions();
    EXPECT_EQ(std::get_terminate(), earlier);
}

} // namespace
