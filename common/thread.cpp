#include "common/thread.h"

#include "common/broken_pipe.h"
#include "common/mutex.h"

#include <atomic>
#include <deque>
#include <pthread.h>
#include <sys/resource.h>

namespace vantor {

/// A body on its way: shared by the Thread object and by whatever thread runs it.
struct ThreadBody {
    explicit ThreadBody(const std::function<void()>& body) : function(body) {}

    void run() {
        function();
        function = nullptr; // what it holds is released before anybody is told that it is over
        is_finished = true;
        is_finished.notify_all();
    }

    std::function<void()> function;
    std::atomic<bool> is_finished = false;
};

namespace {

/// Bodies that the system had no thread for. Whoever takes one out runs it.
class WaitingBodies {
public:
    void add(const std::shared_ptr<ThreadBody>& body) {
        MutexLock lock(m_mutex);
        m_bodies.push_back(body);
    }

    /// The one that has waited longest; null when none waits.
    std::shared_ptr<ThreadBody> takeFirst() {
        MutexLock lock(m_mutex);
        if (m_bodies.empty())
            return nullptr;

        std::shared_ptr<ThreadBody> first = std::move(m_bodies.front());
        m_bodies.pop_front();
        return first;
    }

    /// True when `body` was waiting and is now the caller's to run.
    bool take(const std::shared_ptr<ThreadBody>& body) {
        MutexLock lock(m_mutex);
        return std::erase(m_bodies, body) > 0;
    }

private:
    Mutex m_mutex;
    std::deque<std::shared_ptr<ThreadBody>> m_bodies VANTOR_GUARDED_BY(m_mutex);
};

WaitingBodies& waitingBodies() {
    static auto* bodies = new WaitingBodies; // never destroyed: threads may outlive main
    return *bodies;
}

void* threadMain(void* argument) noexcept {
    std::unique_ptr<std::shared_ptr<ThreadBody>> own(static_cast<std::shared_ptr<ThreadBody>*>(argument));
    blockBrokenPipeSignal();
    (*own)->run();

    while (const std::shared_ptr<ThreadBody> waiting = waitingBodies().takeFirst())
        waiting->run();
    return nullptr;
}

/// False when the system has no thread to give.
bool createDetachedThread(void* (*entry)(void*), void* argument) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;

    (void)pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED); // fails for a wrong state alone
    pthread_t ignored = {};
    const bool is_created = pthread_create(&ignored, &attributes, entry, argument) == 0;
    (void)pthread_attr_destroy(&attributes);
    return is_created;
}

} // namespace

void lowerThreadPriority() {
    constexpr int kBackgroundNice = 10;
    if (getpriority(PRIO_PROCESS, 0) < kBackgroundNice)      // on Linux, both mean the thread alone
        (void)setpriority(PRIO_PROCESS, 0, kBackgroundNice); // lowering is everybody's right
}

Thread::Thread() = default;

Thread::~Thread() = default;

bool Thread::start(const std::function<void()>& body) {
    (void)waitingBodies().take(m_body); // nothing waits as a rule
    m_body = std::make_shared<ThreadBody>(body);
    auto argument = std::make_unique<std::shared_ptr<ThreadBody>>(m_body);
    if (!createDetachedThread(threadMain, argument.get())) {
        waitingBodies().add(m_body);
        return false;
    }
    (void)argument.release(); // the new thread owns it
    return true;
}

void Thread::join() {
    if (!m_body)
        return;

    if (waitingBodies().take(m_body))
        m_body->run();
    else
        m_body->is_finished.wait(false);
}

} // namespace vantor
