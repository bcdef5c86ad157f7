#pragma once

#include "tests/support/certificates.h"
#include "tests/support/child_process.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vantor::test {

/// What an HTTP server answered.
struct HttpAnswer {
    int status = 0; ///< 0: nothing
    std::string header;
    std::string body;
};

/// A minidump of that size: whole, and nothing that can be walked.
std::string smallMinidump(uint32_t size = 100);

/// The form of a report, with boundary "b": its parameters, and the dump under its name.
std::string reportForm(const std::map<std::string, std::string>& params, const std::string& filename,
                       const std::string& dump);
/// A whole request that posts a form to the collector's address for reports.
std::string reportRequest(const std::string& form);

/// A crash collector, with data and symbols below a directory that the caller owns, on the port of a default
/// build.
class CollectorProcess {
public:
    /// Starts it, with these options besides the necessary ones, and waits until it listens. `tracer`: the
    /// words of a command that runs it.
    CollectorProcess(const CertificateAuthority& authority, const std::string& directory,
                     const std::vector<std::string>& options = {},
                     const std::vector<std::string>& tracer = {});
    /// Expects it to end in order if it still runs.
    ~CollectorProcess();
    CollectorProcess(const CollectorProcess&) = delete;
    CollectorProcess& operator=(const CollectorProcess&) = delete;

    pid_t pid() const { return m_process->pid(); }
    /// What it has said.
    std::string words() const;
    /// Ends it by a signal, and returns how it ended, as ChildProcess::wait().
    int end(int signal);

    /// A request by curl, with its arguments before the path.
    HttpAnswer ask(const std::string& path, const std::vector<std::string>& curl_arguments = {}) const;
    /// The same with the bytes of a whole request, over a connection of its own; no answer from a collector
    /// that was killed meanwhile.
    HttpAnswer send(const std::string& request) const;
    /// Sends a report; the answer's status.
    int sendReport(const std::map<std::string, std::string>& params, const std::string& name,
                   const std::string& dump) const;
    /// A stack trace, as soon as it is there; "" when it does not come.
    std::string stackTrace(const std::string& name) const;

    const std::string& dataDirectory() const { return m_data; }
    const std::string& symbolKey() const { return m_symbol_key; }

private:
    const std::string m_authority_file;
    const std::string m_data;
    const std::string m_words;
    const std::string m_symbol_key;
    std::unique_ptr<ChildProcess> m_process;
};

} // namespace vantor::test
