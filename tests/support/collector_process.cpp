#include "tests/support/collector_process.h"

#include "collector/pages.h"
#include "tests/support/eventually.h"
#include "tests/support/programs.h"
#include "tests/support/small_minidump.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/tls_client.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <utility>

namespace vantor::test {

namespace {

constexpr uint16_t kPort = 8443; // a default build's
const char* const kUrl = "https://localhost:8443";

HttpAnswer parseAnswer(const std::string& text) {
    HttpAnswer answer;
    const size_t end = text.find("\r\n\r\n");
    if (end == std::string::npos)
        return answer;
    answer.header = text.substr(0, end + 2);
    answer.body = text.substr(end + 4);
    answer.status = atoi(text.substr(text.find(' ')).c_str());
    return answer;
}

} // namespace

std::string smallMinidump(uint32_t size) {
    SmallMinidump dump;
    dump.directory[1].location.data_size += size - SmallMinidump::kSize;
    std::string bytes = dump.bytes();
    bytes.resize(size, 's');
    return bytes;
}

std::string reportForm(const std::map<std::string, std::string>& params, const std::string& filename,
                       const std::string& dump) {
    std::string form;
    for (const auto& [name, value] : params)
        form += "--b\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
    return form + "--b\r\nContent-Disposition: form-data; name=\"crash\"; filename=\"" + filename +
           "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + dump + "\r\n--b--\r\n";
}

std::string reportRequest(const std::string& form) {
    return "POST /api/1/upload_crash/ HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
           "Content-Type: multipart/form-data; boundary=b\r\nContent-Length: " +
           std::to_string(form.size()) + "\r\n\r\n" + form;
}

CollectorProcess::CollectorProcess(const CertificateAuthority& authority, const std::string& directory,
                                   const std::vector<std::string>& options,
                                   const std::vector<std::string>& tracer)
    : m_authority_file(authority.certificateFile()),
      m_data(directory + "/collector"),
      m_words(directory + "/collector.log"),
      m_symbol_key("key of the tests") {
    const CertificateFiles files = authority.issue("collector");
    const std::string key_file = directory + "/symbol.key";
    writeFile(key_file, m_symbol_key + "\n");
    writeFile(m_words, "");
    std::vector<std::string> command = {"sh", "-c", R"(log=$1; shift; exec "$@" >"$log" 2>&1)", "sh",
                                        m_words};
    command.insert(command.end(), tracer.begin(), tracer.end());
    command.insert(command.end(),
                   {kCrashCollector, "--listen", "127.0.0.1:" + std::to_string(kPort), "--certificate",
                    files.certificate, "--key", files.key, "--data", m_data, "--symbol-key", key_file});
    command.insert(command.end(), options.begin(), options.end());
    m_process = std::make_unique<ChildProcess>(command);
    if (!eventually([this] { return words().find("Listening") != std::string::npos; })) {
        fprintf(stderr, "the collector does not listen: %s\n", words().c_str());
        abort();
    }
}

CollectorProcess::~CollectorProcess() {
    if (m_process->pid() != -1) {
        EXPECT_EQ(0, end(SIGTERM)) << words();
    }
}

std::string CollectorProcess::words() const {
    return readFile(m_words);
}

int CollectorProcess::end(int signal) {
    m_process->sendSignal(signal);
    return m_process->wait();
}

HttpAnswer CollectorProcess::ask(const std::string& path,
                                 const std::vector<std::string>& curl_arguments) const {
    std::vector<std::string> command = {"curl", "--silent", "--include",      "--http1.1", "--max-time",
                                        "30",   "--cacert", m_authority_file, "--header",  "Expect:"};
    command.insert(command.end(), curl_arguments.begin(), curl_arguments.end());
    command.push_back(kUrl + path);
    ChildProcess curl(command);
    const HttpAnswer answer = parseAnswer(curl.readToEnd());
    (void)curl.wait(); // what it makes of the answer is not asked
    return answer;
}

HttpAnswer CollectorProcess::send(const std::string& request) const {
    std::optional<TcpClient> connection = TcpClient::ifSomebodyListens(kPort);
    if (!connection)
        return {};
    TlsClient client(std::move(*connection), m_authority_file);
    if (!client.handshake())
        return {};
    (void)client.send(request); // it may have been answered before its end
    return parseAnswer(client.readToEnd());
}

int CollectorProcess::sendReport(const std::map<std::string, std::string>& params, const std::string& name,
                                 const std::string& dump) const {
    return send(reportRequest(reportForm(params, name + ".dmp", dump))).status;
}

std::string CollectorProcess::stackTrace(const std::string& name) const {
    HttpAnswer answer;
    const bool is_there = eventually([&] {
        answer = ask(collector::stackPathOf(name));
        return answer.status == 200;
    });
    return is_there ? answer.body : "";
}

} // namespace vantor::test
