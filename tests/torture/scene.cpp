#include "tests/torture/scene.h"

#include "tests/support/descriptor.h"
#include "tests/support/eventually.h"
#include "tests/support/namespaces.h"
#include "tests/support/pipe.h"
#include "tests/support/programs.h"
#include "tests/torture/call_filter.h"
#include "tests/torture/processes.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>

namespace vantor::torture {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Descriptor;
using test::Pipe;

constexpr uint16_t kCollectorPort = 8443; // a default build's

// What the client library may take, in milliseconds: for a report, and for a start. Long enough for calls
// that all take a detour; short where somebody is stopped, so that it is found out soon. A companion is given
// up after 40 deadlines.
constexpr const char* kDeadlines = "4000 8000";
constexpr const char* kDeadlinesWithStop = "1500 2000";
constexpr const char* kDeadlinesWithStoppedCompanion = "300 8000";
/// Beyond this an application hangs: all deadlines together, and what a busy machine needs.
constexpr auto kPatience = seconds(30);
/// For one that may hang.
constexpr auto kPatienceWithHang = seconds(4);
/// For what ends or becomes idle by itself after the application.
constexpr auto kPatienceWithRest = seconds(15);
/// A server that says nothing new for so long has nothing to do.
constexpr auto kQuiet = milliseconds(40);
// The library takes a dump for left over, and completes it, when it stands there for so long; and what
// another process has begun for it, when that does.
constexpr auto kTimeForParams = seconds(10);
constexpr auto kTimeForTemporaryParams = seconds(60);

bool usesLibrary(Run run) {
    return run != Run::HandMade;
}

const char* programOf(Run run) {
    return usesLibrary(run) ? test::kCrashingApplication : test::kTestApplication;
}

std::string nameOfProgram(Run run) {
    const std::string path = programOf(run);
    return path.substr(path.rfind('/') + 1).substr(0, 15); // as the kernel cuts it
}

std::string startOf(Run run, const char* deadlines) {
    const std::string server = run == Run::Fallback ? "/nonexistent/crash_server" : test::kCrashServer;
    return usesLibrary(run) ? "start " + server + " " + deadlines + "\n"
                            : "start " + server + "\ngreeting\nannounce\n";
}

const char* deadlinesFor(const std::optional<Fault>& fault) {
    if (!fault || fault->kind != Fault::Kind::Stop ||
        fault->role == Role::Writer) // who is followed by another
        return kDeadlines;
    return fault->role == Role::Companion ? kDeadlinesWithStoppedCompanion : kDeadlinesWithStop;
}

std::string commandsOf(Run run, const std::optional<Fault>& fault) {
    if (!usesLibrary(run))
        return startOf(run, "") + "guard\ncrash segmentation-fault\n";
    return startOf(run, deadlinesFor(fault)) + "set product sample\n" +
           (run == Run::Unwilling ? "consent no\n" : "") + "crash main-thread\n";
}

size_t countOf(std::string_view part, const std::string& text) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

constexpr std::string_view kSent = "Successfully uploaded ";

/// Whether a file of a report that was sent is still there: the server deletes them one after the other.
bool isSentReportThere(const std::string& words) {
    for (size_t at = words.find(kSent); at != std::string::npos; at = words.find(kSent, at)) {
        at += kSent.size();
        std::filesystem::path file = words.substr(at, words.find(" to the server\n", at) - at);
        if (exists(file) || exists(file.replace_extension(".params")))
            return true;
    }
    return false;
}

void endAll() {
    const auto nobody = [] {
        const auto all = strangers();
        for (const ProcessFacts& facts : all)
            (void)kill(facts.process, SIGKILL);
        return all.empty();
    };
    if (!test::eventually(nobody)) {
        fprintf(stderr, "a process cannot be ended\n");
        abort();
    }
}

bool isStopped(const ProcessFacts& facts) {
    return facts.state == 'T';
}

/// How the process ended; empty when it did not.
std::optional<int> awaitEnd(pid_t process, milliseconds patience) {
    int status = 0;
    if (test::eventually([&] { return waitpid(process, &status, WNOHANG) == process; }, patience))
        return status;
    return std::nullopt;
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts)
        all += " " + text;
    return all;
}

std::string describe(const std::vector<Arrived>& reports) {
    std::string text;
    for (const Arrived& report : reports)
        text += " " + report.guid + (report.has_annotations ? "" : " (without annotations)");
    return text.empty() ? " none" : text;
}

Arrived arrivedFrom(const test::ReceivedRequest& request) {
    const auto field = [&request](const char* name) {
        const test::FormPart* const part = request.part(name);
        return part != nullptr ? part->body : "";
    };
    return {field("guid"), field("crash"), field("product") == "sample" && field("version") == "1.0"};
}

} // namespace

std::string describe(const Observation& seen) {
    return "  the application ended: " + seen.end +
           (seen.had_to_be_killed ? ", which it had to be helped with" : "") + ", after " +
           std::to_string(seen.duration.count()) + " ms\n  left behind:" + joined(seen.left_behind) +
           (seen.was_server_killed ? "\n  the server was ended afterwards" : "") +
           "\n  arrived:" + describe(seen.arrived) + "\n  then there were:" + describe(seen.left) +
           "\n  arrived at the next start:" + describe(seen.arrived_at_next) +
           "\n  arrived at a later start:" + describe(seen.arrived_at_late) +
           "\n  at last there were:" + describe(seen.left_at_last) + "\n  answers: " + seen.answers +
           "\n  words:\n" + seen.words;
}

Scene::Scene() : m_authority(m_keys.path()) {
    for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
        unsetenv(name);
    setenv("SSL_CERT_FILE", m_authority.certificateFile().c_str(), 1);
    const test::CertificateFiles files = m_authority.issue("collector");
    test::TlsServer::Options options;
    options.certificate_file = files.certificate;
    options.key_file = files.key;
    options.port = kCollectorPort;
    m_collector = std::make_unique<test::TlsServer>(options);
}

Scene::~Scene() = default;

std::string Scene::directory() const {
    return *m_directory / "vantor/crash";
}

std::string Scene::words() const {
    return test::readFile(*m_directory / "words");
}

/// What has come since the last call. A process that was ended may have sent its last request just before.
std::vector<Arrived> Scene::takeArrived() {
    std::vector<Arrived> arrived;
    for (const test::ReceivedRequest& request : m_collector->takeRequests())
        arrived.push_back(arrivedFrom(request));
    return arrived;
}

/// Whether every upload that has begun has ended, and its report has gone if it was sent.
bool Scene::isServerIdle() const {
    const std::string text = words();
    return countOf("New client, ", text) <= countOf("Client exited, ", text) &&
           countOf("Uploading ", text) == countOf(kSent, text) + countOf("Failed to upload ", text) &&
           !isSentReportThere(text);
}

/// Waits until only servers are left that wait, or somebody who was stopped, and ends them.
void Scene::awaitQuiet(Observation& seen) {
    std::string last_words;
    auto last_news = std::chrono::steady_clock::now();
    const auto is_quiet = [&] {
        const auto all = strangers();
        if (all.empty())
            return true;
        const std::string text = words();
        const auto now = std::chrono::steady_clock::now();
        if (text != last_words)
            last_news = now;
        last_words = text;
        return now - last_news > kQuiet && std::all_of(all.begin(), all.end(), [this](const auto& facts) {
                   return isStopped(facts) || (facts.name == kServerName && isServerIdle());
               });
    };
    (void)test::eventually(is_quiet, kPatienceWithRest);
    for (const ProcessFacts& facts : strangers()) {
        if (facts.name == kServerName)
            seen.was_server_killed = true;
        else if (!isStopped(facts))
            seen.left_behind.push_back(facts.name + " (" + facts.state + ")");
    }
    endAll();
}

void Scene::crash(Run run, const std::optional<Fault>& fault, Observation& seen) {
    Pipe commands;
    Pipe answers;
    Descriptor word_file(
        open((*m_directory / "words").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    const std::string text = commandsOf(run, fault);
    if (write(commands.writing.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        abort();

    const auto start = std::chrono::steady_clock::now();
    int calls = -1;
    const pid_t application = startProgram(programOf(run), commands.reading.get(), answers.writing.get(),
                                           word_file.get(), fault ? fault->call : -1, &calls);
    commands.writing.reset();
    answers.writing.reset();
    word_file.reset();
    {
        Injector injector(calls, application, nameOfProgram(run), fault);
        const bool may_hang = fault && mayHang(*fault);
        std::optional<int> status = awaitEnd(application, may_hang ? kPatienceWithHang : kPatience);
        seen.had_to_be_killed = !status;
        if (!status) {
            (void)kill(application, SIGKILL);
            status = awaitEnd(application, kPatience);
        }
        seen.duration = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
        seen.end = status ? test::describeEnd(*status) : "hangs";
        seen.signal = status && WIFSIGNALED(*status) ? WTERMSIG(*status) : 0;
        awaitQuiet(seen);
        seen.is_fault_done = injector.isDone();
        seen.counts = injector.counts();
        seen.counts_before_main = injector.countsBeforeMain();
    }
    std::array<char, 4096> piece = {};
    const ssize_t length = read(answers.reading.get(), piece.data(), piece.size());
    seen.answers.assign(piece.data(), static_cast<size_t>(std::max<ssize_t>(length, 0)));
    std::replace(seen.answers.begin(), seen.answers.end(), '\n', ' ');
    seen.words = words();
}

/// A start without a fault, which sends what stands there.
void Scene::startAgain(Run run, Observation& seen) {
    Pipe commands;
    Pipe answers;
    Descriptor word_file(
        open((*m_directory / "words").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600));
    const std::string text = startOf(run == Run::HandMade ? run : Run::Library, "10000 10000");
    if (write(commands.writing.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        abort();
    const pid_t application = startProgram(programOf(run), commands.reading.get(), answers.writing.get(),
                                           word_file.get(), -1, nullptr);
    const auto has_sent = [this] {
        const CrashFiles files = readCrashFiles(directory());
        return countOf("New client, ", words()) > 0 && files.pairs.empty() && files.broken_pairs.empty();
    };
    (void)test::eventually(has_sent, seconds(15)); // what is still there then is seen below
    commands.writing.reset();
    if (!awaitEnd(application, kPatience))
        seen.left_behind.push_back("the application of the next start");
    Observation next;
    awaitQuiet(next);
    for (const std::string& name : next.left_behind)
        seen.left_behind.push_back(name + " of the next start");
    seen.words += "-- next start --\n" + words();
}

Observation Scene::perform(Run run, const std::optional<Fault>& fault) {
    m_directory = std::make_unique<test::TemporaryDirectory>();
    setenv("XDG_DATA_HOME", m_directory->path().c_str(), 1);
    (void)takeArrived(); // of a server that was ended at the last moment
    Observation seen;
    crash(run, fault, seen);
    seen.arrived = takeArrived();
    seen.left = readCrashFiles(directory());
    seen.left_at_last = seen.left;
    if (!seen.left.pairs.empty() || !seen.left.broken_pairs.empty()) {
        startAgain(run, seen);
        seen.arrived_at_next = takeArrived();
        seen.left_at_last = readCrashFiles(directory());
    }
    if (usesLibrary(run) && !seen.left.whole_dumps.empty()) {
        const auto age = seen.left.temporary_files.empty() ? kTimeForParams : kTimeForTemporaryParams;
        std::this_thread::sleep_for(age + milliseconds(200)); // it cannot be feigned
        startAgain(run, seen);
        seen.arrived_at_late = takeArrived();
        seen.left_at_last = readCrashFiles(directory());
    }
    return seen;
}

} // namespace vantor::torture
