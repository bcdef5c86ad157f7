#include "crash/crash_handler.h"

#include "common/file.h"
#include "common/thread.h"
#include "common/time.h"

#include <cstdio>

namespace vantor::crash {

namespace {

/// How often wait() looks again, and how long a handler without clients waits for the first.
constexpr Duration kWaitPeriod = Duration(10'000'000'000);

bool isSet(const CrashHandler::Params& params, const char* name) {
    const auto entry = params.find(name);
    return entry != params.end() && entry->second == "1";
}

} // namespace

CrashHandler::CrashHandler(const std::string& crashDir, bool stayAlive,
                           const std::function<void(const Params&)>& interactivityCallback)
    : m_stay_alive(stayAlive),
      m_interactivity_callback(interactivityCallback),
      m_uploader(std::make_unique<CrashUploader>(crashDir)) {}

void CrashHandler::clientConnected(int pid) {
    MutexLock lock(m_mutex);
    if (m_clients.insert(pid).second)
        ++m_client_count;
    m_had_client = true;
    fprintf(stderr, "New client, pid %d\n", pid);
    (void)fflush(stderr);
}

void CrashHandler::clientDisconnected(int pid) {
    fprintf(stderr, "Client exited, pid %d\n", pid);
    (void)fflush(stderr);

    MutexLock lock(m_mutex);
    if (m_clients.erase(pid) > 0)
        --m_client_count;
    m_cond.notifyAll();
}

void CrashHandler::clientDump(int pid, const std::string& dumpPath, const Params& params) {
    Params own_params = params;
    fprintf(stderr, "Crash! Client with PID %d crashed. Sending %s to the crash server\n", pid,
            dumpPath.c_str());
    (void)fflush(stderr);

    if (isSet(own_params, "disable_upload")) {
        fprintf(stderr, "Upload is disabled for client %d\n", pid);
        (void)File::remove(dumpPath); // nobody could do anything about a dump that stays
    } else {
        // Under the lock, so that wait() cannot look between the dump's arrival and its upload.
        MutexLock lock(m_mutex);
        m_uploader->addCrash(dumpPath, own_params, std::bind(&CrashHandler::onUploadFinished, this));
    }

    if (m_interactivity_callback && isSet(own_params, "interactive"))
        startInteractivityThread(std::move(own_params));
}

void CrashHandler::startInteractivityThread(Params params) {
    MutexLock lock(m_mutex);
    ++m_interactive_threads;
    Thread thread; // runs on when this object goes
    thread.start(std::bind(&CrashHandler::interactivityThread, this, std::move(params)));
}

void CrashHandler::interactivityThread(const Params& params) {
    m_interactivity_callback(params);

    MutexLock lock(m_mutex);
    --m_interactive_threads;
    m_cond.notifyAll();
}

void CrashHandler::onUploadFinished() {
    MutexLock lock(m_mutex);
    m_cond.notifyAll();
}

void CrashHandler::wait() {
    MutexLock lock(m_mutex);
    const Time start = Time::now();
    while (!isIdle() || (!m_had_client && start + kWaitPeriod > Time::now()))
        m_cond.timedWaitRelative(m_mutex, kWaitPeriod);
}

bool CrashHandler::isIdle() {
    return !m_stay_alive && m_client_count == 0 && m_interactive_threads == 0 && m_uploader->isDone();
}

} // namespace vantor::crash
