#pragma once

#include "tools/crash_doctor/options.h"

#include <chrono>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vantor/crash_client_c.h>

namespace vantor::tools {

/// What the child knew of its start, before it crashed.
struct TestStart {
    bool has_begun = false; ///< the call returned, and the child went on to crash
    VantorCrashStatus status = VANTOR_CRASH_NOT_STARTED;
    std::string problem; ///< what the library says about it, and what to do; "" when all is well
    std::string server;  ///< path of the server that serves; "" when there is none
};

/// A child that starts the client library as an application does, annotates, and crashes.
///
/// Standard error of the child and of its server goes to the object. One thread uses it.
class TestCrash {
public:
    /// Returns when the child has ended, by its signal or because it was given up.
    explicit TestCrash(const Options& options);
    ~TestCrash();
    TestCrash(const TestCrash&) = delete;
    TestCrash& operator=(const TestCrash&) = delete;

    pid_t child() const;
    TestStart start() const;
    /// From the crash to the child's end; zero when it did not end by itself.
    std::chrono::milliseconds held() const;
    /// How the child ended, in words; "" for the segmentation fault that it is to end by.
    std::string oddEnd() const;

    /// What stands in the report's parameters, and in the first kilobytes of its dump, and in no other's.
    std::string mark() const;

    /// All that was said so far.
    const std::string& words() const;
    /// Waits until more is said, but no longer than this, and takes all that was said. Returns at once when
    /// there is nobody left to say anything.
    void awaitWords(std::chrono::milliseconds patience);
    bool haveWordsEnded() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace vantor::tools
