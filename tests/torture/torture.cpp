// Lets everything go wrong, one thing at a time: each system call of a run from the start of an application
// over its crash to the upload fails once, and each process is killed, and stopped, at each. After each run,
// what is left and what has arrived is held against what is promised (docs/delivery.md).
//
//     torture --all | --minutes M | --sample N     as many faults, drawn at random unless it is all of them
//             [--seed S] [--jobs J] [--run RUN] [--role ROLE] [--call CALL]
//     torture --run RUN --role ROLE --call CALL --number N --effect kill|stop|bereave|ERROR
//             one fault, and all that was seen

#include "tests/support/namespaces.h"
#include "tests/support/pipe.h"
#include "tests/torture/plan.h"
#include "tests/torture/system_calls.h"
#include "tests/torture/verdict.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <optional>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace vantor::torture {

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    bool is_all = false;
    size_t sample = 0;
    int minutes = 0;
    unsigned long seed = 1;
    int jobs = 1;
    std::map<std::string, std::string> only; ///< run, role, call, number, effect
};

[[noreturn]] void explain() {
    fprintf(stderr,
            "torture --all | --minutes M | --sample N [--seed S] [--jobs J] [--run RUN] [--role ROLE] "
            "[--call CALL]\ntorture --run RUN --role ROLE --call CALL --number N --effect "
            "kill|stop|bereave|ERROR\n");
    exit(2);
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--all") {
            options.is_all = true;
            continue;
        }
        if (!word.starts_with("--") || i + 1 == argc)
            explain();
        const std::string name = word.substr(2);
        const std::string value = argv[++i];
        if (name == "sample")
            options.sample = std::stoul(value);
        else if (name == "minutes")
            options.minutes = std::stoi(value);
        else if (name == "seed")
            options.seed = std::stoul(value);
        else if (name == "jobs")
            options.jobs = std::stoi(value);
        else if (name == "run" || name == "role" || name == "call" || name == "number" || name == "effect")
            options.only[name] = value;
        else
            explain();
    }
    return options;
}

bool isWanted(const Options& options, const Fault& fault) {
    const std::map<std::string, std::string> words = {{"run", nameOf(fault.run)},
                                                      {"role", nameOf(fault.role)},
                                                      {"call", callName(fault.call)},
                                                      {"number", std::to_string(fault.number)},
                                                      {"effect", describeEffect(fault)}};
    return std::all_of(options.only.begin(), options.only.end(),
                       [&words](const auto& wish) { return words.at(wish.first) == wish.second; });
}

std::optional<Fault> singleFault(const Options& options) {
    if (options.only.size() != 5)
        return std::nullopt;
    Fault fault;
    const std::optional<Run> run = runNamed(options.only.at("run"));
    const std::optional<Role> role = roleNamed(options.only.at("role"));
    fault.call = callNamed(options.only.at("call"));
    if (!run || !role || fault.call == -1 || !setEffect(options.only.at("effect"), fault))
        explain();
    fault.run = *run;
    fault.role = *role;
    fault.number = std::stoi(options.only.at("number"));
    return fault;
}

/// Runs `body` in a process with namespaces of its own.
pid_t startJob(const std::function<int()>& body) {
    (void)fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0)
        test::runInNamespaces(body);
    return pid;
}

/// All that jobs have to say: until the last of them has ended.
std::string readAll(test::Pipe& pipe) {
    pipe.writing.reset();
    std::string text;
    std::array<char, 65536> piece = {};
    for (ssize_t length = 0; (length = read(pipe.reading.get(), piece.data(), piece.size())) > 0;)
        text.append(piece.data(), static_cast<size_t>(length));
    return text;
}

bool endedWell(pid_t job) {
    int status = 0;
    return waitpid(job, &status, 0) == job && status == 0;
}

void send(int descriptor, const std::string& text) {
    if (write(descriptor, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        abort();
}

std::string textOf(const Fault& fault) {
    std::ostringstream text;
    text << static_cast<int>(fault.run) << ' ' << static_cast<int>(fault.role) << ' ' << fault.call << ' '
         << fault.number << ' ' << static_cast<int>(fault.kind) << ' ' << fault.error << '\n';
    return text.str();
}

/// Every fault that there is.
std::vector<Fault> allFaults(const Options& options) {
    test::Pipe pipe;
    const pid_t job = startJob([&] {
        Scene scene;
        for (const Run run : kRuns) {
            if (options.only.contains("run") && options.only.at("run") != nameOf(run))
                continue;
            std::string text;
            for (const Fault& fault : faultsOf(makePlan(scene, run)))
                text += textOf(fault);
            send(pipe.writing.get(), text);
        }
        return 0;
    });
    std::istringstream text(readAll(pipe));
    if (!endedWell(job))
        exit(1);
    std::vector<Fault> faults;
    Fault fault;
    for (int run = 0, role = 0, kind = 0;
         text >> run >> role >> fault.call >> fault.number >> kind >> fault.error;) {
        fault.run = static_cast<Run>(run);
        fault.role = static_cast<Role>(role);
        fault.kind = static_cast<Fault::Kind>(kind);
        if (isWanted(options, fault))
            faults.push_back(fault);
    }
    return faults;
}

/// What the jobs share.
struct Work {
    std::atomic<size_t> next = 0;
    Clock::time_point deadline = Clock::time_point::max();
};

struct Result {
    size_t index = 0;
    Outcome outcome = Outcome::Wrong;
    std::string sentence;
};

/// Tells what has become of each fault in a line, which is short enough not to be torn by other jobs' lines.
int doWork(Work& work, const std::vector<Fault>& faults, int writing) {
    Scene scene;
    for (size_t i = 0; Clock::now() < work.deadline && (i = work.next++) < faults.size();) {
        if (i != 0 && i % 1000 == 0)
            printf("%zu runs of %zu so far\n", i, faults.size());
        const Observation seen = scene.perform(faults[i].run, faults[i]);
        const Verdict verdict = judge(faults[i], seen);
        if (verdict.outcome == Outcome::Wrong) {
            const std::string report = "WRONG: " + verdict.sentence + "\n  torture " + describe(faults[i]) +
                                       "\n" + describe(seen) + "\n";
            send(STDOUT_FILENO, report);
        }
        send(writing, std::to_string(i) + " " + std::to_string(static_cast<int>(verdict.outcome)) + " " +
                          verdict.sentence + "\n");
    }
    return 0;
}

std::vector<Result> perform(const std::vector<Fault>& faults, const Options& options) {
    void* const memory =
        mmap(nullptr, sizeof(Work), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        abort();
    auto* const work = new (memory) Work; // to the end of the process
    if (options.minutes != 0)
        work->deadline = Clock::now() + std::chrono::minutes(options.minutes);

    test::Pipe pipe;
    std::vector<pid_t> jobs;
    for (int i = 0; i < options.jobs; ++i)
        jobs.push_back(startJob([&] { return doWork(*work, faults, pipe.writing.get()); }));
    std::istringstream text(readAll(pipe));
    std::vector<Result> results;
    Result result;
    for (int outcome = 0; text >> result.index >> outcome && std::getline(text, result.sentence);) {
        result.outcome = static_cast<Outcome>(outcome);
        result.sentence.erase(0, 1);
        results.push_back(result);
    }
    if (!std::all_of(jobs.begin(), jobs.end(), endedWell)) {
        printf("A job has failed.\n");
        exit(1);
    }
    return results;
}

void printTable(const std::vector<Fault>& faults, const std::vector<Result>& results) {
    std::map<std::string, std::map<Outcome, int>> table;
    std::map<std::string, int> sentences;
    for (const Result& result : results) {
        const Fault& fault = faults[result.index];
        ++table[nameOf(fault.run) + " " + nameOf(fault.role)][result.outcome];
        ++table["all"][result.outcome];
        if (!result.sentence.empty())
            ++sentences[nameOf(result.outcome) + ": " + result.sentence];
    }
    printf("%-22s", "");
    for (const Outcome outcome : kOutcomes)
        printf(" %11s", nameOf(outcome).c_str());
    printf("\n");
    for (const auto& [name, counts] : table) {
        printf("%-22s", name.c_str());
        for (const Outcome outcome : kOutcomes)
            printf(" %11d", counts.contains(outcome) ? counts.at(outcome) : 0);
        printf("\n");
    }
    for (const auto& [sentence, count] : sentences)
        printf("%6d  %s\n", count, sentence.c_str());
}

/// A busy machine may make a call of a run unnecessary, such as a look at a dump that has gone by then: the
/// run is made again until the fault is done.
int tortureOnce(const Fault& fault) {
    constexpr int kMostRuns = 10;
    const pid_t job = startJob([&fault] {
        Scene scene;
        Observation seen = scene.perform(fault.run, fault);
        Verdict verdict = judge(fault, seen);
        for (int run = 1; run < kMostRuns && verdict.outcome == Outcome::NotReached; ++run) {
            seen = scene.perform(fault.run, fault);
            verdict = judge(fault, seen);
        }
        printf("%s %s\n%s\n", nameOf(verdict.outcome).c_str(), verdict.sentence.c_str(),
               describe(seen).c_str());
        return verdict.outcome == Outcome::Wrong || verdict.outcome == Outcome::NotReached ? 1 : 0;
    });
    return endedWell(job) ? 0 : 1;
}

/// Draws an order by lot in which what is done thousands of times, such as reading the application's memory,
/// does not come before what is done once. A fault's lot is its own: it does not change when there are other
/// faults, as on a busier machine.
void shuffle(std::vector<Fault>& faults, unsigned long seed) {
    std::multimap<size_t, Fault> drawn;
    for (const Fault& fault : faults)
        drawn.emplace(std::hash<std::string>()(std::to_string(seed) + ' ' + textOf(fault)), fault);

    std::map<std::tuple<Run, Role, int, Fault::Kind, int>, int> seen;
    std::multimap<int, Fault> order; // equal keys stay in order
    for (const auto& [lot, fault] : drawn)
        order.emplace(++seen[{fault.run, fault.role, fault.call, fault.kind, fault.error}], fault);
    std::transform(order.begin(), order.end(), faults.begin(),
                   [](const auto& entry) { return entry.second; });
}

int torture(const Options& options) {
    std::vector<Fault> faults = allFaults(options);
    const size_t count = faults.size();
    if (!options.is_all)
        shuffle(faults, options.seed);
    if (options.sample != 0 && options.sample < faults.size())
        faults.resize(options.sample);
    printf("%zu faults, of which up to %zu are done; seed %lu\n", count, faults.size(), options.seed);

    const std::vector<Result> results = perform(faults, options);
    printTable(faults, results);
    printf("%zu runs of %zu\n", results.size(), count);
    const bool is_wrong = std::any_of(results.begin(), results.end(),
                                      [](const Result& result) { return result.outcome == Outcome::Wrong; });
    return is_wrong || results.empty() ? 1 : 0;
}

} // namespace

} // namespace vantor::torture

int main(int argc, char** argv) {
    using namespace vantor::torture;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const Options options = parse(argc, argv);
    if (const std::optional<Fault> fault = singleFault(options))
        return tortureOnce(*fault);
    if (!options.is_all && options.sample == 0 && options.minutes == 0)
        explain();
    return torture(options);
}
