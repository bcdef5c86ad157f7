#pragma once

#include "tests/support/certificates.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/tls_server.h"
#include "tests/torture/crash_files.h"
#include "tests/torture/injector.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vantor::torture {

/// A report as it arrived.
struct Arrived {
    std::string guid;
    std::string dump;
    bool has_annotations = false; ///< those that the application had set
};

/// What was seen of a run: a crash, perhaps with a fault, and the next starts, without one.
struct Observation {
    bool is_fault_done = false;
    std::string end;                      ///< of the application: "signal 11", "exit 0"
    int signal = 0;                       ///< that ended it; 0: none did
    bool had_to_be_killed = false;        ///< the application did not end by itself
    std::string answers;                  ///< what the application said
    std::string words;                    ///< standard error of all processes
    std::vector<std::string> left_behind; ///< processes that should have ended, and that run
    bool was_server_killed = false;       ///< after the run: it waited, or hung
    std::vector<Arrived> arrived;         ///< during the run
    CrashFiles left;                      ///< after it
    std::vector<Arrived> arrived_at_next; ///< at the next start
    std::vector<Arrived> arrived_at_late; ///< at a start more than ten seconds later, where one was needed
    CrashFiles left_at_last;
    std::chrono::milliseconds duration = {}; ///< until the application's end
    CallCounts counts;
    CallCounts counts_before_main;
};

std::string describe(const Observation& seen);

/// Where runs take place: in namespaces (tests/support/namespaces.h), one after another.
class Scene {
public:
    Scene();
    ~Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    /// With a fault it sees the calls of that name alone; without one, all.
    Observation perform(Run run, const std::optional<Fault>& fault);

private:
    std::vector<Arrived> takeArrived();
    std::string directory() const;
    void openDirectory();
    void crash(Run run, const std::optional<Fault>& fault, Observation& seen);
    void startAgain(Run run, Observation& seen);
    bool isServerIdle() const;
    void awaitQuiet(Observation& seen);
    std::string words() const;

    const test::TemporaryDirectory m_keys;
    const test::CertificateAuthority m_authority;
    std::unique_ptr<test::TemporaryDirectory> m_directory; // of one run
    std::unique_ptr<test::TlsServer> m_collector;
};

} // namespace vantor::torture
