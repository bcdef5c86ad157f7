#include "tests/support/real_dump.h"

#include "tests/support/child_process.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace vantor::test {

namespace {

std::string onlyDumpIn(const std::string& directory) {
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().extension() == ".dmp")
            return entry.path().string();
    }
    fprintf(stderr, "there is no dump in %s\n", directory.c_str());
    abort();
}

} // namespace

RealDump makeRealDump(const std::string& directory) {
    ChildProcess program({DUMP_MAKER, directory});
    RealDump dump;
    dump.line = atoi(program.readLine().c_str());
    (void)program.wait(); // by the signal of its crash
    dump.path = onlyDumpIn(directory);
    return dump;
}

std::string symbolsOfRealDump() {
    ChildProcess dumper({DUMP_SYMS, DUMP_MAKER});
    std::string symbols = dumper.readToEnd();
    (void)dumper.wait(); // whoever uses the symbols sees whether they are whole
    return symbols;
}

std::string moduleIdIn(const std::string& symbols) {
    std::string module, system, processor, id;
    std::istringstream(symbols) >> module >> system >> processor >> id;
    return id;
}

} // namespace vantor::test
