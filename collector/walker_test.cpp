#include "collector/walker.h"

#include "collector/stack_text.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/real_dump.h"
#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
#include <sys/stat.h>

namespace vantor::collector {
namespace {

using test::eventually;
using test::RealDump;
using test::TemporaryDirectory;
using testing::HasSubstr;
using testing::Not;

/// Reports in memory, but for their dumps.
class Reports {
public:
    WalkerReports forWalker() {
        return {.not_walked = [this] { return namesWith(false); },
                .walked = [this] { return namesWith(true); },
                .dump_path = [this](const std::string& name) { return dumpPath(name); },
                .params =
                    [](const std::string& name) {
                        return Params{{"guid", name}};
                    },
                .stack = [this](const std::string& name) { return stack(name); },
                .store_stack =
                    [this](const std::string& name, const std::string& text, const Params& params) {
                        EXPECT_EQ((Params{{"guid", name}}), params);
                        return store(name, text);
                    }};
    }
    void add(const std::string& name, const std::string& dump, const std::string& stack = "") {
        MutexLock lock(m_mutex);
        m_reports[name] = {dump, stack};
    }
    std::string stack(const std::string& name) {
        MutexLock lock(m_mutex);
        return m_reports[name].stack;
    }
    std::vector<std::string> order() {
        MutexLock lock(m_mutex);
        return m_order;
    }

private:
    struct Report {
        std::string dump;
        std::string stack;
    };
    std::vector<std::string> namesWith(bool has_stack) {
        MutexLock lock(m_mutex);
        std::vector<std::string> names;
        for (const auto& [name, report] : m_reports) {
            if (has_stack != report.stack.empty())
                names.push_back(name);
        }
        return names;
    }
    std::optional<std::string> dumpPath(const std::string& name) {
        MutexLock lock(m_mutex);
        const auto entry = m_reports.find(name);
        return entry == m_reports.end() ? std::nullopt : std::optional(entry->second.dump);
    }
    bool store(const std::string& name, const std::string& text) {
        MutexLock lock(m_mutex);
        m_reports[name].stack = text;
        m_order.push_back(name);
        return true;
    }

    Mutex m_mutex;
    std::map<std::string, Report> m_reports VANTOR_GUARDED_BY(m_mutex);
    std::vector<std::string> m_order VANTOR_GUARDED_BY(m_mutex);
};

class WalkerTest : public testing::Test {
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

    void start() { m_walker = std::make_unique<Walker>(m_reports.forWalker(), m_symbols, m_child); }
    SymbolModule givenSymbols() {
        test::writeFile(m_directory / "symbols.txt", *s_symbols);
        SymbolModule module;
        EXPECT_EQ(m_symbols.add(m_directory / "symbols.txt", &module), std::nullopt);
        return module;
    }
    void awaitStack(const std::string& name, const std::string& part) {
        EXPECT_TRUE(eventually([&] { return m_reports.stack(name).find(part) != std::string::npos; }))
            << m_reports.stack(name);
    }
    std::string textWithoutSymbols() {
        return "Crash reason: SIGSEGV\n\n" +
               missingModuleLine({test::kCrashedProgram, test::moduleIdIn(*s_symbols)});
    }

    static constexpr const char* kFunction = "Crashed in: vantor::test::crashInKnownLine()";
    static TemporaryDirectory* s_directory;
    static RealDump* s_dump;
    static std::string* s_symbols;
    TemporaryDirectory m_directory;
    Reports m_reports;
    SymbolStore m_symbols{m_directory / "symbols"};
    WalkChild m_child{"/proc/self/exe", m_symbols.directory()};
    std::unique_ptr<Walker> m_walker;
};

TemporaryDirectory* WalkerTest::s_directory = nullptr;
RealDump* WalkerTest::s_dump = nullptr;
std::string* WalkerTest::s_symbols = nullptr;

TEST_F(WalkerTest, WalksAReportThatArrives) {
    start();
    m_reports.add("new", s_dump->path);
    m_walker->walk("new");
    awaitStack("new", "Crash reason: SIGSEGV /SEGV_MAPERR\n");
    EXPECT_THAT(m_reports.stack("new"), HasSubstr("\n\nParameters:\n  guid: new\n\nThread 0 (crashed)\n"));
}

TEST_F(WalkerTest, WalksWhatWasLeftAtItsStart) {
    m_reports.add("left", s_dump->path);
    m_reports.add("broken", "/dev/null");
    start();
    awaitStack("left", "Crash reason: SIGSEGV /SEGV_MAPERR\n");
    awaitStack("broken",
               "Walk failed: the file is no minidump, or not a whole one.\n\nParameters:\n  guid: broken\n");
}

TEST_F(WalkerTest, SerialisesSymbolsThatAreThereAndUsesThem) {
    (void)givenSymbols();
    m_reports.add("left", s_dump->path);
    start();
    awaitStack("left", kFunction);
    EXPECT_THAT(m_reports.order(), testing::ElementsAre("left"));
}

TEST_F(WalkerTest, WalksAgainWhenSymbolsArrive) {
    start();
    m_reports.add("new", s_dump->path);
    m_walker->walk("new");
    awaitStack("new", "No symbols: dump_maker ");
    m_walker->symbolsArrived(givenSymbols());
    awaitStack("new", kFunction);
    EXPECT_THAT(m_reports.stack("new"), Not(HasSubstr("No symbols: dump_maker ")));
}

TEST_F(WalkerTest, WalksAgainWhatAnEarlierProcessWalkedWithoutThem) {
    m_reports.add("old", s_dump->path, textWithoutSymbols());
    start();
    m_walker->symbolsArrived(givenSymbols());
    awaitStack("old", kFunction);
}

TEST_F(WalkerTest, WalksAgainWhenSymbolsArrivedBeforeItsStart) {
    m_reports.add("old", s_dump->path, textWithoutSymbols());
    (void)givenSymbols();
    start();
    awaitStack("old", kFunction);
}

TEST_F(WalkerTest, LeavesReportsAloneThatLackOtherSymbols) {
    m_reports.add("old", s_dump->path, "Crash reason: SIGSEGV\n\nNo symbols: another AB\n");
    start();
    m_walker->symbolsArrived(givenSymbols());
    m_reports.add("new", s_dump->path);
    m_walker->walk("new");
    awaitStack("new", kFunction);
    m_walker.reset();
    EXPECT_THAT(m_reports.order(), testing::ElementsAre("new"));
}

TEST_F(WalkerTest, GoesOnAfterAReportThatHasGone) {
    start();
    m_walker->walk("gone");
    m_reports.add("new", s_dump->path);
    m_walker->walk("new");
    awaitStack("new", "Crash reason: SIGSEGV /SEGV_MAPERR\n");
    EXPECT_THAT(m_reports.order(), testing::ElementsAre("new"));
}

TEST_F(WalkerTest, WalksInTheOrderOfArrivalAndEachOnce) {
    const std::string pipe = m_directory / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), S_IRWXU), 0); // whoever opens it waits for a writer
    m_reports.add("slow", pipe);
    for (const char* name : {"first", "second", "third"})
        m_reports.add(name, "/dev/null", "old text");
    start();
    ASSERT_TRUE(eventually(test::hasChild));
    for (const char* name : {"first", "second", "first", "third", "second"})
        m_walker->walk(name);
    { const Descriptor writer(open(pipe.c_str(), O_WRONLY)); } // lets the child go on
    awaitStack("third", "Walk failed: ");
    EXPECT_THAT(m_reports.order(), testing::ElementsAre("slow", "first", "second", "third"));
}

TEST_F(WalkerTest, EndsAtOnceAndLeavesNoTextOfTheWalkInHand) {
    const std::string pipe = m_directory / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), S_IRWXU), 0); // whoever opens it waits for a writer
    m_reports.add("endless", pipe);
    start();
    ASSERT_TRUE(eventually(test::hasChild));
    m_walker.reset();
    EXPECT_FALSE(test::hasChild());
    EXPECT_EQ(m_reports.stack("endless"), "");
}

} // namespace
} // namespace vantor::collector
