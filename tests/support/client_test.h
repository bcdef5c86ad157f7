#pragma once

#include "client/minidump_file.h"
#include "tests/support/crash_server_test.h"

#include <chrono>
#include <vector>

namespace vantor::test {

/// A report that stands in the crash directory.
struct WaitingReport {
    std::string stem;
    client::MinidumpCrash crash; ///< what the dump says
};

/// What stands in the crash directory.
struct Left {
    std::vector<WaitingReport> reports; ///< pairs whose dump is whole
    size_t broken_pairs = 0;            ///< others: a server would send them, or delete what belongs together
    size_t lone_dumps = 0;              ///< which no server looks at
    std::vector<std::string> others;
};

/// Applications that use the client library (crashing_application.cpp). There is no collection server until
/// sendReports(): what a crash has left stands in the crash directory.
class ClientTest : public CrashServerTest {
protected:
    ClientTest() { closeCollector(); }
    ~ClientTest() override;

    /// An application that has started the service, and not more.
    void start(const std::string& server = kCrashServer,
               std::chrono::milliseconds deadline = std::chrono::seconds(5),
               std::chrono::milliseconds start_deadline = std::chrono::seconds(10));
    std::unique_ptr<Application> startClient() const;
    /// Starts the service in m_application.
    void startService(const std::string& server = kCrashServer,
                      std::chrono::milliseconds deadline = std::chrono::seconds(5),
                      std::chrono::milliseconds start_deadline = std::chrono::seconds(10)) const;
    std::string tell(const std::string& command) const { return m_application->tell(command); }

    /// The one crash server that runs, as this process sees it. Waits for it; failing that, the test fails.
    static pid_t serverPid();
    /// Sends a signal, and waits until the server has stopped or ended by it.
    static void stopServer();
    static void killServer();

    /// Waits until no process is left but the test itself; what does not end fails the test. A server whose
    /// application has ended is killed: after uploads that failed it may take ten seconds to end by itself.
    static void expectNobodyIsLeft();

    /// Empty when there is no such directory.
    Left left() const;
    /// Has a next server send what it finds, and returns what arrived.
    std::vector<ReceivedRequest> sendReports();

    std::unique_ptr<Application> m_application;
};

} // namespace vantor::test
