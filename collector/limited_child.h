#pragma once

#include "collector/descriptor.h"
#include "common/time.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace vantor::collector {

/// What a child process may use.
struct ChildLimits {
    uint64_t address_space_bytes; ///< not applied in builds with a sanitizer, which reserve terabytes
    uint64_t cpu_seconds;
    Duration time;         ///< by the clock on the wall, which the parent watches
    uint64_t output_bytes; ///< of what it writes into any file
    uint64_t open_files;   ///< the three standard ones included
};

/// How a child came to its end.
struct ChildEnd {
    enum class Kind {
        Exited, ///< by itself, with `status`
        Failed, ///< by a signal or a limit: see `why`
        NotRun, ///< it was stopped or could not be started: see `why`
    };
    Kind kind = Kind::Exited;
    int status = 0;
    std::string why; ///< the rest of a sentence that begins with "Walk failed:"
};

/// A program of ours in a child process of its own, for work that may fail in any way.
///
/// The child gets no descriptor but its output and /dev/null, no privileges by executing anything, leaves no
/// core dump, and dies with the thread that started it. It takes its limits on by itself, before it looks at
/// anything foreign: see enterLimits().
///
/// run() is called by one thread at a time, stop() by any.
class LimitedChild {
public:
    /// `program`: the executable's path.
    explicit LimitedChild(std::string program);
    LimitedChild(const LimitedChild&) = delete;
    LimitedChild& operator=(const LimitedChild&) = delete;

    /// Runs the program with the words of `command` (see enterLimits() for what is put before them), its
    /// standard output going to `output`, and waits for its end.
    ChildEnd run(const std::vector<std::string>& command, int output, const ChildLimits& limits);
    /// Kills the child that runs, and every later one as soon as it is started.
    void stop();
    bool isStopped() const { return m_is_stopped; }

private:
    enum class Reason { HasEnded, TooLong, Stopped };
    Reason waitForEnd(int process, const Duration& time) const;

    const std::string m_program;
    std::atomic<bool> m_is_stopped = false;
    Descriptor m_stop_event;
};

/// Whether these are the arguments of main() in a process that LimitedChild started.
bool isLimitedChild(int argc, char** argv);

/// In such a process, first of all: takes the limits on that its parent gave, and returns the command. Ends
/// the process if one cannot be taken on or the parent is gone.
std::vector<std::string> enterLimits(int argc, char** argv);

} // namespace vantor::collector
