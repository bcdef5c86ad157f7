#pragma once

#include "common/mutex.h"
#include "tests/support/tls_server.h"

#include <iosfwd>
#include <string>

namespace vantor::test {

/// Keeps the crash reports that were uploaded as files in a directory: the dump under its own name, STEM.dmp,
/// and beside it STEM.fields with the other parts of the form in the order in which they came, a line for
/// each name and a line for each value. Files appear whole, and the fields first.
///
/// Threads: receive() may run on several at a time.
class ReceivedReports {
public:
    /// Every report that is kept gets a line on `log`, which outlives the object.
    ReceivedReports(std::string directory, std::ostream* log);

    /// Keeps the report that a request brought and tells its sender how that went: 200; 400 when it is no
    /// form with one file of a plain name, or when a field does not fit on two lines; 500 when the files
    /// cannot be written.
    Answer receive(const ReceivedRequest& request);

private:
    bool write(const std::string& name, const std::string& content) const;

    const std::string m_directory;
    std::ostream* const m_log;
    Mutex m_log_mutex; // a line on the log is not mixed with another
};

} // namespace vantor::test
