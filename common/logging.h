#pragma once

#include <memory>

namespace vantor {

/// Makes standard error fit to carry the process's messages. There is one object of it, behind
/// g_logging_init.
///
/// Standard error is often a pipe whose reader dies first. A program that has this object therefore runs with
/// SIGPIPE blocked from before main, in the main thread and in all that it starts: a message that nobody
/// reads is an error at the write, and nothing else. No disposition is changed.
class LoggingInit {
public:
    /// Called once, on the main thread. What the handle keeps alive is the log: when the last copy goes, what
    /// was printed is flushed.
    virtual std::shared_ptr<void> start() = 0;

protected:
    ~LoggingInit() = default;
};

extern LoggingInit& g_logging_init;

} // namespace vantor
