#pragma once

#include <functional>
#include <memory>

namespace vantor {

struct ThreadBody;

/// A thread of execution.
///
/// Every thread runs with SIGPIPE blocked, so that writing to a connection or a pipe that nobody reads any
/// more is an error at the write and not the end of the process. An exception that escapes a body ends the
/// process.
///
/// When the system refuses one more thread (a limit on processes, no memory), the body is not lost: it is run
/// by the next thread of this class whose own body ends, or by join(). A process that is out of threads
/// because a crashing program holds them thus does its work a little later.
///
/// A Thread object belongs to one thread at a time.
class Thread {
public:
    /// An idle object: nothing runs.
    Thread();
    /// Neither waits for nor stops a body that is still running: that runs on to its end by itself.
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /// Runs a copy of `body` on a new thread, and returns without waiting for it. False when there is no
    /// thread to be had now and the body has to wait for one. Started again then, the object tries once more,
    /// with the new body in the place of the one that waited.
    bool start(const std::function<void()>& body);

    /// Blocks until the body has returned; returns at once when it has already, or when nothing was started.
    /// A body that is still waiting for a thread is run here, by the caller.
    void join();

private:
    std::shared_ptr<ThreadBody> m_body; // null until start()
};

/// For work that may take its time: lowers the calling thread's priority for good, as far as nice(1) does by
/// its default, so that on a busy machine others get some ten times as much of a processor. A thread that has
/// a lower one keeps it.
void lowerThreadPriority();

} // namespace vantor
