#include "collector/symbol_store.h"

#include "tests/support/real_dump.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thread>

namespace vantor::collector {
namespace {

using test::readFile;
using test::TemporaryDirectory;
using test::writeFile;
using testing::ElementsAre;
using State = SerialisedSymbols::State;

constexpr const char* kSymbols = "MODULE Linux x86_64 AB0 app\nFILE 0 app.cpp\nFUNC 10 8 0 run()\n10 8 5 0\n";
const SymbolModule kModule = {"app", "AB0"};

class SymbolStoreTest : public testing::Test {
protected:
    std::optional<Rejection> add(const std::string& text) {
        writeFile(m_directory / "arrived", text);
        return m_store.add(m_directory / "arrived", &m_added);
    }
    void givenSymbols() { ASSERT_EQ(add(kSymbols), std::nullopt); }
    Serialised serialise() { return m_store.serialise(kModule, serialiseSymbols); }
    std::string place(const std::string& extension) const {
        return m_directory / ("symbols/app/AB0/app" + extension);
    }
    std::vector<std::string> namesInPlace() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_directory / "symbols/app/AB0"))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    TemporaryDirectory m_directory;
    SymbolStore m_store{m_directory / "symbols"};
    SymbolModule m_added;
};

TEST_F(SymbolStoreTest, PutsASymbolFileWhereItsFirstLineSays) {
    EXPECT_FALSE(m_store.has(kModule));
    EXPECT_EQ(add(kSymbols), std::nullopt);
    EXPECT_EQ(m_added, kModule);
    EXPECT_TRUE(m_store.has(kModule));
    EXPECT_EQ(readFile(place(".sym")), kSymbols);
    EXPECT_THAT(namesInPlace(), ElementsAre("app.sym"));
    EXPECT_EQ(readFile(m_directory / "arrived"), kSymbols);
}

TEST_F(SymbolStoreTest, WhatItMakesIsTheOwnersAloneWhateverTheMask) {
    const mode_t mask = umask(0);
    givenSymbols();
    EXPECT_EQ(serialise(), Serialised::Made);
    (void)umask(mask);
    for (const std::string& path :
         {m_directory / "symbols", m_directory / "symbols/app", m_directory / "symbols/app/AB0"})
        EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(path).permissions()), 0700U) << path;
    for (const char* extension : {".sym", ".fast"})
        EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(place(extension)).permissions()), 0600U)
            << extension;
}

TEST_F(SymbolStoreTest, ReplacesASymbolFile) {
    givenSymbols();
    EXPECT_EQ(add("MODULE Linux x86_64 AB0 app\nnew\n"), std::nullopt);
    EXPECT_EQ(readFile(place(".sym")), "MODULE Linux x86_64 AB0 app\nnew\n");
    EXPECT_THAT(namesInPlace(), ElementsAre("app.sym"));
}

TEST_F(SymbolStoreTest, RejectsAFileThatNamesNoModule) {
    for (const std::string& text :
         {std::string(), std::string("MODULE Linux x86_64 AB0 app"), std::string("text\n"),
          std::string("MODULE Linux x86_64 AB0 ../app\n"), std::string("MODULE Linux x86_64 AB0 ..\n"),
          std::string("MODULE Linux x86_64 .. app\n"), std::string("MODULE Linux x86_64 AB0 a\0b\n", 28),
          "MODULE Linux x86_64 AB0 " + std::string(251, 'a') + "\n", std::string(100'000, 'M')}) {
        const auto rejection = add(text);
        ASSERT_TRUE(rejection) << text;
        EXPECT_EQ(rejection->kind, Rejection::Kind::Bad);
        EXPECT_EQ(rejection->reason,
                  "The symbol file does not begin with a line MODULE SYSTEM CPU ID NAME that names a module");
    }
    EXPECT_THAT(m_directory.names(), ElementsAre("arrived"));
}

TEST_F(SymbolStoreTest, TakesTheLongestName) {
    EXPECT_EQ(add("MODULE Linux x86_64 AB0 " + std::string(250, 'a') + "\n"), std::nullopt);
    EXPECT_TRUE(m_store.has({std::string(250, 'a'), "AB0"}));
    EXPECT_EQ(m_store.serialise(m_added, serialiseSymbols), Serialised::Made);
}

TEST_F(SymbolStoreTest, SaysThatItCannotStore) {
    writeFile(m_directory / "symbols", "in the way");
    const auto rejection = add(kSymbols);
    ASSERT_TRUE(rejection);
    EXPECT_EQ(rejection->kind, Rejection::Kind::NoStorage);
    EXPECT_TRUE(rejection->reason.starts_with("The symbols cannot be stored now: ")) << rejection->reason;
}

TEST_F(SymbolStoreTest, LeavesNothingWhenThePlaceIsTaken) {
    std::filesystem::create_directories(place(".sym") + "/in the way");
    EXPECT_EQ(add(kSymbols)->kind, Rejection::Kind::NoStorage);
    EXPECT_THAT(namesInPlace(), ElementsAre("app.sym"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_directory / "symbols"), {}), 1);
}

TEST_F(SymbolStoreTest, RemovesWhatAKilledProcessLeft) {
    m_store.removeLeftOvers(); // of nothing
    givenSymbols();
    ASSERT_EQ(add("MODULE Linux x86_64 AB0 .new-module\n"), std::nullopt);
    writeFile(m_directory / "symbols/.new-a1B2c3", "half");
    writeFile(m_directory / "symbols/mine", "not ours");
    m_store.removeLeftOvers();
    EXPECT_FALSE(test::exists(m_directory / "symbols/.new-a1B2c3"));
    EXPECT_TRUE(test::exists(m_directory / "symbols/mine"));
    EXPECT_TRUE(m_store.has(kModule));
    EXPECT_TRUE(m_store.has({".new-module", "AB0"}));
}

TEST_F(SymbolStoreTest, WritesNewFilesWhereLeftOversAreRemoved) {
    givenSymbols();
    const auto look = [this](const std::string&, int) {
        EXPECT_THAT(namesInPlace(), ElementsAre("app.sym"));
        m_store.removeLeftOvers();
        return Serialised::Made;
    };
    EXPECT_EQ(m_store.serialise(kModule, look), Serialised::NotNow); // its file has gone
}

TEST_F(SymbolStoreTest, MakesNoPathOfAModuleThatIsNotValid) {
    EXPECT_EQ(m_store.symbolPath({"../a", "AB"}), "");
    EXPECT_EQ(m_store.serialisedPath({"a", "../AB"}), "");
    EXPECT_FALSE(m_store.has({"..", "AB"}));
    EXPECT_EQ(m_store.stateOf({"..", "AB"}), State::NoSymbols);
}

TEST_F(SymbolStoreTest, SerialisesSymbolsOnce) {
    EXPECT_EQ(m_store.stateOf(kModule), State::NoSymbols);
    givenSymbols();
    EXPECT_EQ(m_store.stateOf(kModule), State::NotMade);
    EXPECT_EQ(serialise(), Serialised::Made);
    EXPECT_EQ(m_store.stateOf(kModule), State::Usable);
    EXPECT_THAT(namesInPlace(), ElementsAre("app.fast", "app.sym"));
}

TEST_F(SymbolStoreTest, SerialisesSymbolsThatWereReplacedAgain) {
    givenSymbols();
    ASSERT_EQ(serialise(), Serialised::Made);
    ASSERT_EQ(add(kSymbols), std::nullopt);
    EXPECT_EQ(m_store.stateOf(kModule), State::NotMade);
    EXPECT_EQ(serialise(), Serialised::Made);
    EXPECT_EQ(m_store.stateOf(kModule), State::Usable);
}

TEST_F(SymbolStoreTest, TakesNoCutFormForOne) {
    givenSymbols();
    ASSERT_EQ(serialise(), Serialised::Made);
    const std::string whole = readFile(place(".fast"));
    for (size_t size = 0; size < whole.size(); ++size) {
        std::filesystem::resize_file(place(".fast"), size);
        EXPECT_EQ(m_store.stateOf(kModule), State::NotMade) << size;
        writeFile(place(".fast"), whole);
    }
    EXPECT_EQ(m_store.stateOf(kModule), State::Usable);
    writeFile(place(".fast"), whole + "x");
    EXPECT_EQ(m_store.stateOf(kModule), State::NotMade);
}

TEST_F(SymbolStoreTest, TakesNoFormWithAnotherHeaderForOne) {
    givenSymbols();
    ASSERT_EQ(serialise(), Serialised::Made);
    const std::string whole = readFile(place(".fast"));
    for (size_t i = 0; i < 48; ++i) {
        std::string changed = whole;
        changed[i] = static_cast<char>(changed[i] ^ 1);
        writeFile(place(".fast"), changed);
        EXPECT_EQ(m_store.stateOf(kModule), State::NotMade) << i;
    }
}

TEST_F(SymbolStoreTest, RemembersThatSymbolsAreUnusableUntilTheyAreReplaced) {
    givenSymbols();
    const auto fail = [](const std::string&, int output) {
        EXPECT_EQ(write(output, "half", 4), 4);
        return Serialised::Unusable;
    };
    EXPECT_EQ(m_store.serialise(kModule, fail), Serialised::Unusable);
    EXPECT_EQ(m_store.stateOf(kModule), State::Unusable);
    ASSERT_EQ(add(kSymbols), std::nullopt);
    EXPECT_EQ(m_store.stateOf(kModule), State::NotMade);
}

TEST_F(SymbolStoreTest, ForgetsAnAttemptThatWasInterrupted) {
    givenSymbols();
    EXPECT_EQ(m_store.serialise(kModule, [](const std::string&, int) { return Serialised::NotNow; }),
              Serialised::NotNow);
    EXPECT_EQ(m_store.stateOf(kModule), State::NotMade);
    EXPECT_THAT(namesInPlace(), ElementsAre("app.sym"));
}

TEST_F(SymbolStoreTest, ShowsWholeFilesWhileTheyAreReplaced) {
    givenSymbols();
    std::jthread writer([this](const std::stop_token& stop) {
        SymbolModule ignored;
        while (!stop.stop_requested()) {
            EXPECT_EQ(m_store.add(m_directory / "arrived", &ignored), std::nullopt);
            EXPECT_NE(serialise(), Serialised::Unusable);
        }
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(readFile(place(".sym")), kSymbols);
        EXPECT_NE(m_store.stateOf(kModule), State::NoSymbols);
        EXPECT_NE(m_store.stateOf(kModule), State::Unusable);
    }
}

TEST_F(SymbolStoreTest, SerialisesTheSymbolsOfARealProgram) {
    const std::string symbols = test::symbolsOfRealDump();
    ASSERT_EQ(add(symbols), std::nullopt);
    EXPECT_EQ(m_added, (SymbolModule{test::kCrashedProgram, test::moduleIdIn(symbols)}));
    EXPECT_EQ(m_store.serialise(m_added, serialiseSymbols), Serialised::Made);
    EXPECT_EQ(m_store.stateOf(m_added), State::Usable);
}

} // namespace
} // namespace vantor::collector
