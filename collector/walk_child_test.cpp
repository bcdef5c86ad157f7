#include "collector/walk_child.h"

#include "collector/stack_text.h"
#include "collector/symbol_store.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/real_dump.h"
#include "tests/support/temporary_directory.h"

#include <gmock/gmock.h>
#include <random>
#include <sys/stat.h>
#include <thread>

namespace vantor::collector {
namespace {

using test::readFile;
using test::RealDump;
using test::TemporaryDirectory;
using test::writeFile;
using testing::AnyOf;
using testing::StartsWith;

class WalkChildTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_directory = new TemporaryDirectory;
        s_dump = new RealDump(test::makeRealDump(s_directory->path()));
    }
    static void TearDownTestSuite() {
        delete s_dump;
        delete s_directory;
    }

    /// What a walk of a dump with these bytes says, which must be a stack trace or why there is none.
    std::string walkOf(const std::string& bytes) {
        writeFile(m_directory / "dump", bytes);
        const std::optional<std::string> text = m_child.walk(m_directory / "dump");
        EXPECT_TRUE(text);
        EXPECT_THAT(*text, AnyOf(StartsWith("Crash reason: "), StartsWith("Walk failed: ")));
        return *text;
    }
    void givenSymbols(const std::string& text) {
        writeFile(m_directory / "symbols.txt", text);
        ASSERT_EQ(m_store.add(m_directory / "symbols.txt", &m_module), std::nullopt);
    }
    Serialised serialise(WalkChild& child) {
        return m_store.serialise(m_module, [&child](const std::string& path, int output) {
            return child.serialise(path, output);
        });
    }

    static TemporaryDirectory* s_directory;
    static RealDump* s_dump;
    TemporaryDirectory m_directory;
    SymbolStore m_store{m_directory / "symbols"};
    SymbolModule m_module;
    WalkChild m_child{"/proc/self/exe", m_store.directory()};
};

TemporaryDirectory* WalkChildTest::s_directory = nullptr;
RealDump* WalkChildTest::s_dump = nullptr;

TEST_F(WalkChildTest, WalksWithSymbols) {
    givenSymbols(test::symbolsOfRealDump());
    EXPECT_EQ(serialise(m_child), Serialised::Made);
    EXPECT_THAT(*m_child.walk(s_dump->path), StartsWith("Crash reason: SIGSEGV /SEGV_MAPERR\n"
                                                        "Crash address: 0x0\n"
                                                        "Crashed in: vantor::test::crashInKnownLine() "
                                                        "(dump_maker.cpp:" +
                                                        std::to_string(s_dump->line) + ")\n"));
}

TEST_F(WalkChildTest, SaysThatThereIsNoDump) {
    EXPECT_EQ(*m_child.walk(m_directory / "none"),
              "Walk failed: the dump cannot be opened: No such file or directory.\n");
    EXPECT_EQ(walkOf(""), "Walk failed: the file is no minidump, or not a whole one.\n");
}

TEST_F(WalkChildTest, SurvivesADumpThatIsCutAnywhere) {
    const std::string whole = readFile(s_dump->path);
    for (size_t size = 0; size < 256; size += 5)
        (void)walkOf(whole.substr(0, size));
    for (size_t i = 0; i < 60; ++i)
        (void)walkOf(whole.substr(0, whole.size() * i / 60));
    EXPECT_THAT(walkOf(whole), StartsWith("Crash reason: SIGSEGV"));
}

TEST_F(WalkChildTest, SurvivesADumpWithOtherBytes) {
    const std::string whole = readFile(s_dump->path);
    std::mt19937 random(1);
    for (int round = 0; round < 150; ++round) {
        std::string bytes = whole;
        for (int i = 0; i < 8; ++i) // most at the start, where the header and the directory are
            bytes[random() % (round % 2 == 0 ? 600 : bytes.size())] = static_cast<char>(random());
        (void)walkOf(bytes);
    }
}

TEST_F(WalkChildTest, LimitsTheText) {
    ChildLimits limits = kWalkLimits;
    limits.output_bytes = 100;
    WalkChild child("/proc/self/exe", m_store.directory(), limits);
    EXPECT_EQ(*child.walk(s_dump->path), "Walk failed: it wrote more than 0 MiB.\n");
}

TEST_F(WalkChildTest, LimitsTheTime) {
    ASSERT_EQ(mkfifo((m_directory / "dump").c_str(), S_IRWXU), 0); // waits for a writer
    ChildLimits limits = kWalkLimits;
    limits.time = Duration(100'000'000);
    WalkChild child("/proc/self/exe", m_store.directory(), limits);
    EXPECT_EQ(*child.walk(m_directory / "dump"), "Walk failed: it took longer than 0.1 s.\n");
}

TEST_F(WalkChildTest, LeavesNoTextWhenItIsStopped) {
    ASSERT_EQ(mkfifo((m_directory / "dump").c_str(), S_IRWXU), 0);
    std::thread stopper([this] {
        EXPECT_TRUE(test::eventually(test::hasChild));
        m_child.stop();
    });
    EXPECT_EQ(m_child.walk(m_directory / "dump"), std::nullopt);
    stopper.join();
    EXPECT_EQ(m_child.walk(s_dump->path), std::nullopt);
}

TEST_F(WalkChildTest, SaysThatSymbolsAreUnusableWhenTheyExceedALimit) {
    givenSymbols(test::symbolsOfRealDump());
    ChildLimits limits = kSerialisingLimits;
    limits.output_bytes = 100;
    WalkChild child("/proc/self/exe", m_store.directory(), kWalkLimits, limits);
    EXPECT_EQ(serialise(child), Serialised::Unusable);
    EXPECT_EQ(m_store.stateOf(m_module), SerialisedSymbols::State::Unusable);
}

TEST_F(WalkChildTest, BlamesNoSymbolsWhenItIsStopped) {
    givenSymbols(test::symbolsOfRealDump());
    m_child.stop();
    EXPECT_EQ(serialise(m_child), Serialised::NotNow);
    EXPECT_EQ(m_store.stateOf(m_module), SerialisedSymbols::State::NotMade);
}

TEST_F(WalkChildTest, SurvivesASerialisedFormWithOtherBytes) {
    givenSymbols(test::symbolsOfRealDump());
    ASSERT_EQ(serialise(m_child), Serialised::Made);
    const std::string whole = readFile(m_store.serialisedPath(m_module));
    std::mt19937 random(1);
    for (int round = 0; round < 50; ++round) {
        std::string bytes = whole;
        for (int i = 0; i < 2000; ++i)
            bytes[random() % bytes.size()] = static_cast<char>(random());
        bytes.replace(0, 48, whole, 0, 48); // the header: it is taken for a good one
        writeFile(m_store.serialisedPath(m_module), bytes);
        EXPECT_THAT(*m_child.walk(s_dump->path),
                    AnyOf(StartsWith("Crash reason: "), StartsWith("Walk failed: ")));
    }
}

TEST_F(WalkChildTest, SurvivesSymbolsThatAreCutOrChanged) {
    const std::string whole = test::symbolsOfRealDump();
    const size_t first_line = whole.find('\n') + 1;
    std::mt19937 random(1);
    for (int round = 0; round < 20; ++round) {
        std::string text = whole.substr(0, first_line + random() % (whole.size() - first_line));
        for (int i = 0; i < 50; ++i)
            text[first_line + random() % (text.size() - first_line)] = static_cast<char>(random());
        givenSymbols(text);
        EXPECT_NE(serialise(m_child), Serialised::NotNow);
        EXPECT_THAT(*m_child.walk(s_dump->path),
                    AnyOf(StartsWith("Crash reason: "), StartsWith("Walk failed: ")));
    }
}

} // namespace
} // namespace vantor::collector
