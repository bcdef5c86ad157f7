#pragma once

#include "common/http_uploader.h"
#include "tools/crash_doctor/finding.h"
#include "tools/crash_doctor/test_crash.h"

#include <chrono>
#include <optional>
#include <string>

namespace vantor::tools {

/// Who wrote the test report.
enum class Writer { Nobody, Server, Process };

/// The report of a test crash, on its way from the crash directory to the collection server.
class TestReport {
public:
    /// Looks for it in what the server said, then in the crash directory. `crash` outlives the object.
    TestReport(TestCrash& crash, const std::string& directory);

    Writer writer() const { return m_writer; }
    /// The link to the stack trace that the server prints when the report has arrived; "" when it did not
    /// within `patience`, or the server has ended or has given it up.
    std::string awaitLink(std::chrono::seconds patience);
    /// Sends it in the server's place, to learn what the server does not say. An attempt that takes longer
    /// than `patience` is cut off, with error 42. Empty when the report is not there any more.
    std::optional<HttpUploader::UploadResponse> sendAgain(std::chrono::seconds patience) const;
    /// Deletes what is left of it, be it the beginning of a dump for which there was no room.
    void remove() const;

private:
    std::string dumpPath() const { return m_stem + ".dmp"; }
    std::string paramsPath() const { return m_stem + ".params"; }
    std::string link() const;
    /// Whether the dump is there. Afterwards words() holds the link of one that has gone because it arrived;
    /// while the dump is there, waits for more words, but no longer than `patience`.
    bool isThere(std::chrono::milliseconds patience);
    bool isGivenUp() const;

    TestCrash& m_crash;
    Writer m_writer = Writer::Nobody;
    std::string m_stem; ///< its path without an extension
};

/// What went wrong on the way, and what to do.
Finding explainFailure(const HttpUploader::UploadResponse& response);

} // namespace vantor::tools
