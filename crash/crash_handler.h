#pragma once

#include "common/condition_variable.h"
#include "common/mutex.h"
#include "crash/crash_uploader.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace vantor::crash {

/// The server's one bookkeeping object: it knows which clients live, decides what becomes of each dump, and
/// decides when the server may end. It touches neither sockets nor the contents of report files.
///
/// Made on the heap by main, reached by everybody else through g_crash_handler, and destroyed by main when no
/// other thread can call it any more; it owns the uploader, which goes first.
///
/// Threads: main (constructor, clientConnected, wait, destructor), the dump server's thread (clientDump,
/// clientDisconnected), the watcher of the parent (clientDisconnected), the upload thread (onUploadFinished)
/// and the interactivity threads.
///
/// Locks: m_mutex guards every field, and the calls into the uploader; the uploader's own lock comes after
/// it.
///
/// Messages go to standard error in fixed texts. Nothing is reported to callers, and no exception is caught.
class CrashHandler {
public:
    using Params = std::map<std::string, std::string>;

    /// `crashDir`: where report pairs stand; those that an earlier run left there are sent at once.
    /// `stayAlive`: wait() never returns.
    /// `interactivityCallback`: run on a thread of its own for each dump whose parameter "interactive" is
    /// "1"; may be empty. It must not throw: wait() would never return.
    CrashHandler(const std::string& crashDir, bool stayAlive,
                 const std::function<void(const Params&)>& interactivityCallback);
    /// Waits for nothing; only to be called after wait() has returned.
    ~CrashHandler() = default;
    CrashHandler(const CrashHandler&) = delete;
    CrashHandler& operator=(const CrashHandler&) = delete;

    /// Registers a client; a pid that is known already counts once.
    void clientConnected(int pid) VANTOR_EXCLUDES(m_mutex);
    /// Takes a client out, whether it is registered or not, and wakes wait(). May be called after wait() has
    /// returned.
    void clientDisconnected(int pid) VANTOR_EXCLUDES(m_mutex);

    /// Handles a dump that was just written: queues it for upload, or deletes it when the parameter
    /// "disable_upload" is "1", and starts the interactivity callback. The client stays registered; it need
    /// not be.
    void clientDump(int pid, const std::string& dumpPath, const Params& params) VANTOR_EXCLUDES(m_mutex);

    /// Blocks until the server may end: no client is registered, no interactivity callback runs and no upload
    /// is pending. A handler that never had a client gives one 10 seconds to come. Looks again at every
    /// notification, and every 10 seconds, since uploads of left-over reports end without one.
    void wait() VANTOR_EXCLUDES(m_mutex);

private:
    void onUploadFinished() VANTOR_EXCLUDES(m_mutex);
    void interactivityThread(const Params& params) VANTOR_EXCLUDES(m_mutex);
    void startInteractivityThread(Params params) VANTOR_EXCLUDES(m_mutex);
    bool isIdle() VANTOR_REQUIRES(m_mutex);

    uint64_t m_client_count VANTOR_GUARDED_BY(m_mutex) = 0; // follows m_clients
    std::set<int> m_clients VANTOR_GUARDED_BY(m_mutex);
    bool m_had_client VANTOR_GUARDED_BY(m_mutex) = false;
    const bool m_stay_alive;
    int32_t m_interactive_threads VANTOR_GUARDED_BY(m_mutex) = 0;
    Mutex m_mutex;
    ConditionVariable m_cond; // signalled whenever wait() may have to return
    const std::function<void(const Params&)> m_interactivity_callback;
    const std::unique_ptr<CrashUploader> m_uploader; // the last one made and the first one destroyed
};

} // namespace vantor::crash
