// The crash collection server: stores the reports that crash servers send, and shows their stack traces.

#include "collector/http_server.h"
#include "collector/options.h"
#include "collector/report_service.h"
#include "collector/report_store.h"
#include "collector/symbol_service.h"
#include "collector/symbol_store.h"
#include "collector/walk_child.h"
#include "collector/walker.h"
#include "collector/web.h"
#include "common/descriptor_limit.h"
#include "common/file.h"
#include "common/logging.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <pthread.h>
#include <stdexcept>
#include <unistd.h>

namespace vantor::collector {

namespace {

/// Blocks the signals that end the program, here and in the threads to come, so that waitForEnd() gets them.
sigset_t blockEndSignals() {
    sigset_t signals;
    (void)sigemptyset(&signals);
    (void)sigaddset(&signals, SIGTERM);
    (void)sigaddset(&signals, SIGINT);
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void waitForEnd(const sigset_t& signals) {
    int ignored = 0;
    (void)sigwait(&signals, &ignored);
}

std::string contentOf(const std::string& path) {
    errno = 0;
    const std::shared_ptr<File> file = File::open(path, "r", true);
    std::string text;
    if (file == nullptr || file->read(&text, file->size()) <= 0)
        throw std::runtime_error(
            path + " cannot be read: " + (errno != 0 ? strerror(errno) : "it is empty, or no file"));
    return text;
}

/// The first line of the key's file; "" when none is named.
std::string symbolKeyOf(const Options& options) {
    if (options.symbol_key_file.empty())
        return "";
    const std::string text = contentOf(options.symbol_key_file);
    std::string key = text.substr(0, text.find_first_of("\r\n"));
    if (key.empty())
        throw std::runtime_error(options.symbol_key_file + " does not begin with a line that is a key");
    return key;
}

HttpServer::Options serverOptions(const Options& options) {
    const auto bounded = [](uint64_t number) {
        return static_cast<unsigned int>(std::min<uint64_t>(number, std::numeric_limits<int>::max()));
    };
    return {.address = options.address,
            .port = options.port,
            .certificate = contentOf(options.certificate_file),
            .key = contentOf(options.key_file),
            .connections = bounded(options.connections),
            .connections_per_address = bounded(options.connections_per_address),
            .silence_seconds = bounded(options.silence_seconds)};
}

/// crash_walker, which is installed beside this program.
std::string walkerProgram() {
    std::string program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "crash_walker";
    if (access(program.c_str(), X_OK) != 0)
        throw std::runtime_error(program + " cannot be run: " + strerror(errno) +
                                 "; it belongs beside crash_collector");
    return program;
}

WalkerReports walkerReports(ReportStore& store) {
    return {
        .not_walked = [&store] { return store.notWalked(); },
        .walked =
            [&store] {
                std::vector<std::string> names;
                for (const Report& report : store.newest(SIZE_MAX)) {
                    if (report.is_walked)
                        names.push_back(report.name);
                }
                return names;
            },
        .dump_path =
            [&store](const std::string& name) {
                const std::optional<Report> report = store.find(name);
                return report ? std::optional(report->dump_path) : std::nullopt;
            },
        .params = [&store](const std::string& name) { return store.params(name).value_or(Params()); },
        .stack = [&store](const std::string& name) { return store.stack(name).value_or(""); },
        .store_stack = [&store](const std::string& name, const std::string& text,
                                const Params& params) { return store.storeStack(name, text, params); },
    };
}

void serve(const Options& options) {
    const sigset_t end_signals = blockEndSignals();
    const HttpServer::Options server_options = serverOptions(options);
    (void)raiseDescriptorLimit(); // one for each connection

    ReportStore reports(options.data_directory, options.keep_free_bytes);
    if (const std::optional<std::string> complaint = reports.recover())
        throw std::runtime_error(*complaint);
    SymbolStore symbols(options.symbols_directory);
    symbols.removeLeftOvers();
    WalkChild child(walkerProgram(), options.symbols_directory);
    Walker walker(walkerReports(reports), symbols, child);

    ReportService report_service(reports, options.form, [&walker](const std::string& name) {
        printf("Stored %s\n", name.c_str());
        walker.walk(name);
    });
    SymbolService symbol_service(symbols, {.key = symbolKeyOf(options),
                                           .most_bytes = options.most_symbol_bytes,
                                           .new_file = [&reports] { return reports.newIncomingFile(); },
                                           .on_added =
                                               [&walker](const SymbolModule& module) {
                                                   printf("Symbols of %s %s\n", module.file.c_str(),
                                                          module.id.c_str());
                                                   walker.symbolsArrived(module);
                                               }});
    const Web web(report_service, symbol_service);
    const HttpServer server(server_options,
                            [&web](const HttpRequest& request) { return web.decide(request); });
    const bool is_version6 = options.address.find(':') != std::string::npos;
    printf("Listening on https://%s%s%s:%u/\n", is_version6 ? "[" : "", options.address.c_str(),
           is_version6 ? "]" : "", server.port());
    waitForEnd(end_signals);
}

} // namespace

} // namespace vantor::collector

int main(int argc, char** argv) {
    using namespace vantor::collector;
    const std::variant<Options, EarlyEnd> parsed = parseOptions(argc, argv);
    if (const EarlyEnd* end = std::get_if<EarlyEnd>(&parsed)) {
        (void)fputs(end->text.c_str(), end->status == 0 ? stdout : stderr);
        return end->status;
    }

    const std::shared_ptr<void> log = vantor::g_logging_init.start();
    (void)setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // each line as it comes, into a file or a pipe too
    try {
        serve(std::get<Options>(parsed));
        return 0;
    } catch (const std::exception& error) {
        fprintf(stderr, "crash_collector: %s\n", error.what());
        return 1;
    }
}
