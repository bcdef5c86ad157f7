#include "collector/stack_trace.h"

#include "collector/stack_text.h"
#include "tests/support/real_dump.h"
#include "tests/support/temporary_directory.h"

#include <fstream>
#include <gmock/gmock.h>

namespace vantor::collector {
namespace {

using test::RealDump;
using test::TemporaryDirectory;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class StackTraceTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_directory = new TemporaryDirectory;
        s_dump = new RealDump(test::makeRealDump(s_directory->path()));
        s_symbols = new std::string(test::symbolsOfRealDump());
    }
    static void TearDownTestSuite() {
        delete s_symbols;
        delete s_dump;
        delete s_directory;
    }

    void givenSymbols(const std::string& text) {
        test::writeFile(m_directory / "symbols.txt", text);
        SymbolModule module;
        ASSERT_EQ(m_store.add(m_directory / "symbols.txt", &module), std::nullopt);
        ASSERT_EQ(m_store.serialise(module, serialiseSymbols), Serialised::Made);
    }
    std::string trace() {
        std::ifstream dump(s_dump->path, std::ios::binary);
        return stackTrace(dump, m_store);
    }
    /// Replaces every `what`, a text of the same length.
    std::string traceWith(const std::string& what, const std::string& by) {
        std::string bytes = test::readFile(s_dump->path);
        for (size_t i = bytes.find(what); i != std::string::npos; i = bytes.find(what, i + 1))
            bytes.replace(i, by.size(), by);
        std::istringstream dump(bytes);
        return stackTrace(dump, m_store);
    }
    static std::string crashFunction() { return "vantor::test::crashInKnownLine()"; }
    static SymbolModule program() { return {test::kCrashedProgram, test::moduleIdIn(*s_symbols)}; }

    static TemporaryDirectory* s_directory;
    static RealDump* s_dump;
    static std::string* s_symbols;
    TemporaryDirectory m_directory;
    SymbolStore m_store{m_directory / "symbols"};
};

TemporaryDirectory* StackTraceTest::s_directory = nullptr;
RealDump* StackTraceTest::s_dump = nullptr;
std::string* StackTraceTest::s_symbols = nullptr;

TEST_F(StackTraceTest, NamesFunctionAndLineOfTheCrash) {
    givenSymbols(*s_symbols);
    const std::string place = "dump_maker.cpp:" + std::to_string(s_dump->line);
    const std::string text = trace();
    EXPECT_THAT(text, StartsWith("Crash reason: SIGSEGV /SEGV_MAPERR\n"
                                 "Crash address: 0x0\n"
                                 "Crashed in: " +
                                 crashFunction() + " (" + place +
                                 ")\n"
                                 "Process: dump_maker\n"
                                 "Time: 2"));
    EXPECT_THAT(text, HasSubstr("\nOperating system: Linux "));
    EXPECT_THAT(text, HasSubstr("\nCPU: amd64 "));
    EXPECT_THAT(text, HasSubstr("\n\nThread 0 (crashed)\n 0  dump_maker!" + crashFunction() + " [" + place +
                                " + 0x"));
    EXPECT_THAT(text,
                ContainsRegex("\n [0-9]  dump_maker!main \\[dump_maker.cpp:[0-9]+ \\+ 0x[0-9a-f]+\\]\n"));
    EXPECT_THAT(text, ContainsRegex("\n\nThread 1\n"));
    EXPECT_THAT(text, HasSubstr("dump_maker!vantor::test::otherThreadGoesOn()"));
}

TEST_F(StackTraceTest, ShowsTheRegistersOfTheCrashOnce) {
    const std::string text = trace();
    EXPECT_THAT(text,
                ContainsRegex("\n    rax = 0x[0-9a-f]{16}  rdx = 0x[0-9a-f]{16}  rcx = 0x[0-9a-f]{16}\n"));
    EXPECT_THAT(text, ContainsRegex("  rip = 0x[0-9a-f]{16}\n\nThread 1\n"));
    EXPECT_EQ(text.find("rip ="), text.rfind("rip ="));
}

TEST_F(StackTraceTest, NamesTheModuleWhereThereAreNoSymbols) {
    const std::string text = trace();
    EXPECT_THAT(text, ContainsRegex("\nCrashed in: dump_maker \\+ 0x[0-9a-f]+\n"));
    EXPECT_THAT(text, ContainsRegex("\n 0  dump_maker \\+ 0x[0-9a-f]+\n"));
    EXPECT_THAT(missingModulesOf(text), testing::Contains(program()));
    EXPECT_THAT(text,
                ContainsRegex("\nModules:\n  0x[0-9a-f]+ - 0x[0-9a-f]+  dump_maker  " + program().id + "\n"));
}

TEST_F(StackTraceTest, LacksNoModuleThatHasSymbols) {
    givenSymbols(*s_symbols);
    EXPECT_THAT(missingModulesOf(trace()), Not(testing::Contains(program())));
}

TEST_F(StackTraceTest, SaysThatSymbolsAreFaulty) {
    givenSymbols("MODULE Linux x86_64 " + program().id + " " + program().file + "\nFUNC nonsense\n");
    const std::string text = trace();
    EXPECT_THAT(text, HasSubstr("\nFaulty symbols: dump_maker " + program().id + "\n"));
    EXPECT_THAT(missingModulesOf(text), Not(testing::Contains(program())));
}

TEST_F(StackTraceTest, SaysThatSymbolsAreUnusable) {
    givenSymbols(*s_symbols);
    ASSERT_EQ(m_store.serialise(program(), [](const std::string&, int) { return Serialised::Unusable; }),
              Serialised::Unusable);
    const std::string text = trace();
    EXPECT_THAT(text, HasSubstr("\nFaulty symbols: dump_maker " + program().id + "\n"));
    EXPECT_THAT(missingModulesOf(text), testing::Contains(program()));
}

TEST_F(StackTraceTest, EscapesWhatComesFromTheDump) {
    // Names in dumps are UTF-16.
    const std::string name("d\0u\0m\0p\0_\0m\0a\0k\0e\0r\0", 20);
    const std::string forged("d\0u\0m\0p\0\n\0m\0\x1b\0k\0e\0r\0", 20);
    const std::string text = traceWith(name, forged);
    EXPECT_THAT(text, HasSubstr("\nProcess: dump\\x0am\\x1bker\n"));
    EXPECT_THAT(text, ContainsRegex("\n 0  dump.x0am.x1bker \\+ 0x"));
    EXPECT_THAT(text, Not(HasSubstr("\x1b")));
    for (const SymbolModule& module : missingModulesOf(text))
        EXPECT_NE(module.id, program().id);
}

TEST_F(StackTraceTest, EscapesWhatComesFromSymbols) {
    const size_t function = s_symbols->find("crashInKnownLine");
    ASSERT_NE(function, std::string::npos);
    std::string symbols = *s_symbols;
    for (size_t i = function; i != std::string::npos; i = symbols.find("crashInKnownLine", i))
        symbols.replace(i, 5, "\x1b[31m");
    givenSymbols(symbols);
    EXPECT_THAT(trace(), AllOf(HasSubstr("::\\x1b[31mInKnownLine"), Not(HasSubstr("\x1b"))));
}

TEST_F(StackTraceTest, ShortensLongNames) {
    const size_t function = s_symbols->find("crashInKnownLine()");
    ASSERT_NE(function, std::string::npos);
    std::string symbols = *s_symbols;
    givenSymbols(symbols.replace(function, 18, std::string(2000, 'f')));
    const std::string scope = "vantor::test::";
    EXPECT_THAT(trace(),
                ContainsRegex("\nCrashed in: " + scope + "f+\\.\\.\\. \\(dump_maker.cpp:[0-9]+\\)\n"));
    EXPECT_THAT(trace(), HasSubstr("!" + scope + std::string(1024 - scope.size(), 'f') + "... ["));
}

TEST_F(StackTraceTest, SaysWhyADumpCannotBeWalked) {
    std::istringstream empty;
    EXPECT_EQ(stackTrace(empty, m_store), "Walk failed: the file is no minidump, or not a whole one.\n");
    std::istringstream text("MDMP is how one begins");
    EXPECT_EQ(stackTrace(text, m_store), "Walk failed: the file is no minidump, or not a whole one.\n");
}

TEST_F(StackTraceTest, SaysThatADumpHasNoThreads) {
    std::string bytes = test::readFile(s_dump->path);
    constexpr size_t kDirectory = 32; // behind the header; its first entry is the list of threads
    ASSERT_EQ(bytes.substr(kDirectory, 4), std::string("\3\0\0\0", 4));
    bytes[kDirectory] = '\x7f';
    std::istringstream dump(bytes);
    EXPECT_EQ(stackTrace(dump, m_store), "Walk failed: the dump has no list of threads that can be read.\n");
}

} // namespace
} // namespace vantor::collector
