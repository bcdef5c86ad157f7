#include "tests/support/certificates.h"
#include "tests/support/received_reports.h"
#include "tests/support/tls_server.h"

#include <charconv>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Receives crash reports over HTTPS and puts them into a directory, for trying things out by hand: with a
// certificate authority of its own making, on the loopback only.

namespace {

using namespace vantor::test;

constexpr int kUsageError = 2;
constexpr std::string_view kUsage =
    "usage: tls_receiver --port N --directory DIR\n"
    "\n"
    "Receives crash reports at https://localhost:N (0: any free port) and puts\n"
    "them into DIR. Clients must trust DIR/authority.crt. Ends on SIGTERM or\n"
    "SIGINT.\n";

struct Settings {
    uint16_t port = 0;
    std::string directory;
};

std::optional<uint16_t> parsePort(std::string_view text) {
    uint16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    return error == std::errc() && stop == end ? std::optional(port) : std::nullopt;
}

/// Empty unless both options are there, once each and with a proper value.
std::optional<Settings> parseArguments(const std::vector<std::string_view>& arguments) {
    constexpr size_t kTwoOptions = 4;
    if (arguments.size() != kTwoOptions)
        return std::nullopt;

    std::optional<uint16_t> port;
    std::string directory;
    for (size_t i = 0; i < kTwoOptions; i += 2) {
        if (arguments[i] == "--port")
            port = parsePort(arguments[i + 1]);
        if (arguments[i] == "--directory")
            directory = arguments[i + 1];
    }
    return port && !directory.empty() ? std::optional(Settings{*port, directory}) : std::nullopt;
}

/// Blocks the signals that end the program, here and in the threads to come, so that waitForEnd() gets them.
sigset_t blockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr); // fails for a wrong first argument alone
    return signals;
}

void waitForEnd(const sigset_t& signals) {
    int ignored = 0;
    (void)sigwait(&signals, &ignored); // fails for a wrong set alone
}

void receiveReports(const Settings& settings) {
    const sigset_t end_signals = blockEndSignals();
    const CertificateAuthority authority(settings.directory);
    const CertificateFiles certificate = authority.issue("tls_receiver");

    ReceivedReports reports(settings.directory, &std::cout);
    TlsServer::Options options;
    options.certificate_file = certificate.certificate;
    options.key_file = certificate.key;
    options.port = settings.port;
    options.answer = [&reports](const ReceivedRequest& request) { return reports.receive(request); };
    const TlsServer server(options);
    std::cout << "listening on " << server.url() << std::endl;
    waitForEnd(end_signals);
}

} // namespace

int main(int argc, char** argv) {
    const std::optional<Settings> settings = parseArguments({argv + 1, argv + argc});
    if (!settings) {
        std::cerr << kUsage;
        return kUsageError;
    }
    std::error_code ignored; // what cannot be looked at is no directory to us
    if (!std::filesystem::is_directory(settings->directory, ignored)) {
        std::cerr << "tls_receiver: " << settings->directory << " is not a directory\n\n" << kUsage;
        return kUsageError;
    }
    receiveReports(*settings);
}
