#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace vantor::client {

class GuardianMemory;
struct GuardianState;

struct GuardianOptions {
    std::string server;         ///< path of the crash server's executable
    std::string data_home = {}; ///< the server's XDG_DATA_HOME; empty: as in the process's environment

    /// Address of the descriptor of the annotations, which stays there for the process's life; null: none.
    const void* descriptor = nullptr;

    /// What a server may take, from its start to its greeting: it first lists the reports of earlier runs.
    std::chrono::milliseconds greeting_deadline = std::chrono::seconds(10);

    // A server that ended is followed by another one: after the first delay, and after twice as long each
    // time, up to the longest delay; so many in a row, until one runs for the steady time.
    std::chrono::milliseconds first_restart_delay = std::chrono::milliseconds(100);
    std::chrono::milliseconds longest_restart_delay = std::chrono::seconds(30);
    std::chrono::milliseconds steady_time = std::chrono::minutes(1);
    unsigned int most_restarts = 5;

    /// Whether a first start that fails is followed by others, as if that server had ended.
    bool stays_without_server = false;

    /// How long a crash path may keep the next server from starting (see hold()).
    std::chrono::milliseconds longest_hold = std::chrono::minutes(1);
};

/// What is known of the service at one moment.
struct GuardianHealth {
    enum class Condition {
        Serving,
        Restarting, ///< there is no server; another one is on its way
        GivenUp,    ///< there is no server: too many have ended, or the application has closed its socket
        Gone,       ///< nobody looks after this process: it is a forked child, or the guardian was killed
    };

    Condition condition = Condition::Gone;
    pid_t server = -1;           ///< -1 unless it serves
    pid_t guardian = -1;         ///< -1 when it has gone
    unsigned int restarts = 0;   ///< how many servers followed the first
    std::optional<int> last_end; ///< how the last one ended, as a status of waitpid(); empty: none has
};

struct StartedGuardian;

/// Starts a crash server for this process and keeps one running, by a process of its own, the guardian.
///
/// The guardian shares the application's memory and its table of descriptors. It is the server's parent, so
/// that the server stays as long as the process does, whichever thread started it, and is no child of the
/// application's: neither wait() nor SIGCHLD shows the server or the guardian. It ends when the application
/// ends or executes another program, and has the server end, too.
///
/// In the application there are three descriptors more, all close-on-exec. Where they are closed by somebody
/// who closes all, the server goes on, and cannot be replaced.
///
/// Descriptors that the application does not close itself, such as a port, are closed when the guardian has
/// ended, too: as a rule half a millisecond after the application. A program that follows by an exec has
/// a child that has ended, which no ordinary wait shows.
///
/// A server has the socket, standard error and /dev/null, the environment of the start and the signal mask of
/// the thread that called it; what the process ignored then it ignores, and SIGPIPE. When a server ends,
/// requests on the socket fail at once, until the next one serves under the same number.
///
/// The server has a session of its own: what a terminal sends to the application, it does not get.
///
/// Forked children inherit the socket and may crash over it until the server is replaced; they see the state.
/// Otherwise the object is dead to them. One that destroys it, or stops it, closes what it inherited, and may
/// then start a guardian of its own. Threads: any may call health(), but none during stop(); the others are
/// called by one at a time.
class Guardian {
public:
    /// Starts both and returns when the server serves, or a reason why it does not. In the latter case no
    /// process is left, unless GuardianOptions::stays_without_server keeps the guardian.
    static StartedGuardian start(const GuardianOptions& options);

    /// stop().
    ~Guardian();
    Guardian(const Guardian&) = delete;
    Guardian& operator=(const Guardian&) = delete;

    /// The application's end of the socket, for Breakpad's ExceptionHandler. It stays the guardian's; -1
    /// before the first server serves, and once it was stopped. Otherwise the number stays.
    int socket() const;

    /// What client/guarded_service.h asks. Null once it was stopped: then no crash path may use it any more.
    GuardianState* state() const;

    GuardianHealth health() const;

    /// Ends the service. The server gets SIGHUP: it sends the reports that it has, and then ends by itself,
    /// as it does after the application's end. Returns as soon as the guardian has ended. May be called
    /// again.
    ///
    /// Who has orphans for children, as process 1, then has the server for one.
    void stop();

private:
    Guardian(std::unique_ptr<GuardianMemory> memory, pid_t pid);

    const pid_t m_pid;
    std::unique_ptr<GuardianMemory> m_memory; // null: stopped
};

/// One of the two; both when the guardian stays without a server.
struct StartedGuardian {
    std::unique_ptr<Guardian> guardian;
    std::string error; ///< a sentence that says what to do
};

} // namespace vantor::client
