// What one walk of a dump costs: in the collector's child process with serialised symbols, from the start of
// the child to its text, beside Breakpad's minidump_stackwalk with the same symbols as text. In alternating
// runs; the figures are medians.
//
//     walk_benchmark CRASH_WALKER DUMP SYMBOLS MINIDUMP_STACKWALK FUNCTION RUNS >FIGURES
//
// FUNCTION is one that both must name.

#include "benchmarks/figures.h"
#include "benchmarks/median.h"
#include "collector/stack_text.h"
#include "collector/symbol_store.h"
#include "collector/walk_child.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <spawn.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using vantor::collector::Descriptor;
using vantor::collector::SymbolStore;
using vantor::collector::WalkChild;

[[noreturn]] void fail(const std::string& what) {
    fprintf(stderr, "%s\n", what.c_str());
    exit(1);
}

std::string stackwalk(std::string program, std::string dump, std::string symbols) {
    const Descriptor output(memfd_create("output", MFD_CLOEXEC));
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions); // these fail for want of memory alone
    (void)posix_spawn_file_actions_adddup2(&actions, output.get(), STDOUT_FILENO);
    (void)posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    char* arguments[] = {program.data(), dump.data(), symbols.data(), nullptr};
    pid_t child = -1;
    if (posix_spawn(&child, program.c_str(), &actions, nullptr, arguments, environ) != 0)
        fail("cannot start " + program);
    (void)posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0)
        fail(program + " did not end well");

    std::string text(static_cast<size_t>(lseek(output.get(), 0, SEEK_END)), '\0');
    if (pread(output.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        fail("cannot read what " + program + " wrote");
    return text;
}

/// Makes the serialised form of all symbols that a walk needs, as the collector does at its first one.
void serialiseSymbols(WalkChild& child, SymbolStore& store, const std::string& dump) {
    using State = vantor::collector::SerialisedSymbols::State;
    bool is_any_made = true;
    while (is_any_made) {
        is_any_made = false;
        for (const auto& module : vantor::collector::missingModulesOf(child.walk(dump).value_or(""))) {
            if (store.stateOf(module) != State::NotMade)
                continue;
            (void)store.serialise(module, [&child](const std::string& path, int output) {
                return child.serialise(path, output);
            });
            is_any_made = true;
        }
    }
}

double microseconds(const std::function<std::string()>& walk, const std::string& function) {
    const auto begin = std::chrono::steady_clock::now();
    const std::string text = walk();
    const auto end = std::chrono::steady_clock::now();
    if (text.find(function) == std::string::npos)
        fail("a walk does not name " + function + ":\n" + text);
    return std::chrono::duration<double, std::micro>(end - begin).count();
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc == 7 ? atoi(argv[6]) : 0;
    if (runs < 1) {
        fprintf(stderr, "usage: walk_benchmark CRASH_WALKER DUMP SYMBOLS MINIDUMP_STACKWALK FUNCTION RUNS\n");
        return 2;
    }

    const std::string dump = argv[2];
    const std::string function = argv[5];
    SymbolStore store(argv[3]);
    WalkChild child(argv[1], store.directory());
    serialiseSymbols(child, store, dump);

    std::vector<double> ours;
    std::vector<double> theirs;
    for (int i = 0; i < runs; ++i) {
        ours.push_back(microseconds([&] { return child.walk(dump).value_or(""); }, function));
        theirs.push_back(microseconds([&] { return stackwalk(argv[4], dump, argv[3]); }, function));
    }

    printFigure({"a walk, exec included", "us", median(ours), "minidump_stackwalk", median(theirs), 0.02});
}
