// What a change of an annotation costs, beside what an application would do without crash reports in mind: a
// std::map with a mutex. In alternating runs; the figures are medians of the nanoseconds of one change.
//
//     annotation_benchmark RUNS >FIGURES
//
// Each row changes the values of all its annotations in turn; "set after a line" is a set() that has a line
// of the log to bring up to date. The last row is the time of two threads that set at once, per change.

#include "benchmarks/figures.h"
#include "benchmarks/median.h"
#include "client/annotations.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using vantor::client::AnnotationError;
using vantor::client::Annotations;

constexpr int kChanges = 20'000;
constexpr size_t kLogLines = 16;

void require(AnnotationError error) {
    if (error == AnnotationError::None)
        return;
    fprintf(stderr, "%s\n", explain(error));
    exit(1);
}

/// The yardstick.
class MapWithMutex {
public:
    void set(const std::string& name, const std::string& value) {
        const std::lock_guard lock(m_mutex);
        m_values[name] = value;
    }
    void clear(const std::string& name) {
        const std::lock_guard lock(m_mutex);
        m_values.erase(name);
    }

private:
    std::mutex m_mutex;
    std::map<std::string, std::string> m_values;
};

/// Both hold `count` annotations. Names and values are made beforehand.
struct Subjects {
    explicit Subjects(size_t count) {
        require(Annotations::create({.capacity = count, .log_lines = kLogLines}, &annotations));
        for (size_t i = 0; i < count; ++i) {
            names.push_back("component.setting_" + std::to_string(i));
            values.push_back("value " + std::to_string(i) + std::string(20, 'v'));
            require(annotations->set(names[i], values[i]));
            map.set(names[i], values[i]);
        }
    }
    const std::string& name(int i) const { return names[static_cast<size_t>(i) % names.size()]; }
    const std::string& value(int i) const { return values[static_cast<size_t>(i + 1) % names.size()]; }

    std::vector<std::string> names;
    std::vector<std::string> values;
    std::unique_ptr<Annotations> annotations;
    MapWithMutex map;
};

double nanosecondsEach(const std::function<void(int)>& change) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kChanges; ++i)
        change(i);
    const auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - begin).count() / kChanges;
}

/// The same by two threads, of which each makes half of the changes.
double nanosecondsOfTwoThreads(const std::function<void(int)>& change) {
    const auto half = [&change](int first) {
        for (int i = first; i < kChanges; i += 2)
            change(i);
    };
    const auto begin = std::chrono::steady_clock::now();
    std::thread other(half, 1);
    half(0);
    other.join();
    const auto end = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::nano>(end - begin).count() / kChanges;
}

struct Row {
    const char* figure;
    std::function<double()> ours;
    std::function<double()> yardstick;
    double goal; // nanoseconds; 0: none
};

void measure(const Row& row, int runs) {
    std::vector<double> ours;
    std::vector<double> yardstick;
    for (int i = 0; i < runs; ++i) {
        ours.push_back(row.ours());
        yardstick.push_back(row.yardstick());
    }
    printFigure({row.figure, "ns", median(ours), "std::map, a mutex", median(yardstick), 0});
    if (row.goal > 0)
        printFigure({row.figure + std::string(", at most"), "ns", median(ours), "goal in ns", row.goal, 1});
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc == 2 ? atoi(argv[1]) : 0;
    if (runs < 1) {
        fprintf(stderr, "usage: annotation_benchmark RUNS\n");
        return 2;
    }

    Subjects few(64);
    Subjects many(300);
    Subjects most(Annotations::kMostCapacity);
    const std::string line(100, 'l');

    const auto sets = [](Subjects& of) {
        return [&of] {
            return nanosecondsEach([&of](int i) { require(of.annotations->set(of.name(i), of.value(i))); });
        };
    };
    const auto map_sets = [](Subjects& of) {
        return [&of] { return nanosecondsEach([&of](int i) { of.map.set(of.name(i), of.value(i)); }); };
    };
    const auto clear_and_set = [&few](int i) {
        require(few.annotations->clear(few.name(i)));
        require(few.annotations->set(few.name(i), few.value(i)));
    };
    const auto map_clear_and_set = [&few](int i) {
        few.map.clear(few.name(i));
        few.map.set(few.name(i), few.value(i));
    };
    const auto line_and_set = [&few, &line](int i) {
        require(few.annotations->log().add(line));
        require(few.annotations->set(few.name(i), few.value(i)));
    };
    const auto set_few = [&few](int i) { require(few.annotations->set(few.name(i), few.value(i))); };
    const auto map_set_few = [&few](int i) { few.map.set(few.name(i), few.value(i)); };

    const Row rows[] = {
        {"set, 64 annotations", sets(few), map_sets(few), 200},
        {"set, 300 annotations", sets(many), map_sets(many), 200},
        {"set, 1024 annotations", sets(most), map_sets(most), 200},
        {"clear and set, 64 annotations", [&] { return nanosecondsEach(clear_and_set); },
         [&] { return nanosecondsEach(map_clear_and_set); }, 400},
        {"a line of 16, and a set after it", [&] { return nanosecondsEach(line_and_set); },
         [&] { return nanosecondsEach(map_set_few); }, 0},
        {"set by two threads, 64 annotations", [&] { return nanosecondsOfTwoThreads(set_few); },
         [&] { return nanosecondsOfTwoThreads(map_set_few); }, 0},
    };
    for (const Row& row : rows)
        measure(row, runs);
}
