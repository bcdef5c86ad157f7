#pragma once

#include "tests/support/application.h"
#include "tests/support/certificates.h"
#include "tests/support/descriptor.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/tls_server.h"

#include <gmock/gmock.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vantor::test {

/// The name of a report that an earlier run may have left.
inline const std::string kStem = "0a1b2c3d-1111-2222-3333-444455556666";

using Fields = std::map<std::string, std::string>;

/// The form fields of a report that arrived; fails the test when one comes twice.
Fields fieldsOf(const ReceivedRequest& report);
/// The same without those that the server adds by itself, "guid" and "time".
Fields annotationsOf(const ReceivedRequest& report);
/// The name of the dump that arrived: "GUID.dmp"; "" when there is none.
std::string dumpNameOf(const ReceivedRequest& report);
/// The dump that arrived; "" when there is none.
std::string dumpOf(const ReceivedRequest& report);
/// A file's name without its extension.
std::string stemOf(const std::string& name);

/// A crash directory, a collection server that is trusted, and what the crash server says. The collection
/// server accepts every report, until a test puts another in its place.
class CrashServerTest : public testing::Test {
protected:
    CrashServerTest();

    /// An application that does nothing yet. What it and its server say goes to words().
    std::unique_ptr<Application> startApplication(const char* program = kTestApplication) const;
    /// An application whose server serves, with its crash handler in place.
    std::unique_ptr<Application> startGuarded(const std::string& server = kCrashServer) const;

    TlsServer& collector() { return *m_collector; }
    /// Puts another collection server in the place of the present one, with a good certificate if it names
    /// none.
    void openCollector(TlsServer::Options options);
    void closeCollector() { m_collector.reset(); }
    const CertificateAuthority& authority() const { return m_authority; }
    /// Waits for that many reports in all and returns them; fewer when they did not come, which fails the
    /// test.
    std::vector<ReceivedRequest> reports(size_t count);
    /// The one report that arrived, and no other did.
    ReceivedRequest onlyReport();

    const std::string& directory() const { return m_directory.path(); }
    /// Where the server keeps its reports. It does not exist before the first server did, or makeReport().
    std::string crashDirectory() const { return m_directory / "vantor/crash"; }
    std::string pathOf(const std::string& name) const { return crashDirectory() + "/" + name; }
    /// What stands in the crash directory, sorted.
    std::vector<std::string> crashFiles() const;
    /// Puts a pair of files there, as an earlier run may have left them.
    void leavePair(const std::string& stem, const std::string& params,
                   const std::string& dump = "a dump") const;
    void leaveFile(const std::string& name, const std::string& content) const;

    /// Everything that was written to standard error so far.
    std::string words() const;
    std::vector<std::string> lines() const;
    size_t countOfLines(const std::string& start) const;
    /// Waits until `text` was written that many times; failing that, the test fails.
    void awaitWords(const std::string& text, size_t count = 1) const;
    /// Waits until the server says that so many reports have arrived. It deletes the last one afterwards, and
    /// before it ends.
    void awaitUploads(size_t count) const { awaitWords(".stack\n", count); }
    /// Ends an application and expects its server to end as it should, too.
    static void endQuietly(Application& application);

private:
    TemporaryDirectory m_directory;
    const CertificateAuthority m_authority = CertificateAuthority(m_directory.path());
    Descriptor m_words;
    std::unique_ptr<TlsServer> m_collector;
};

} // namespace vantor::test
