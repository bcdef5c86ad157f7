#include "collector/stack_text.h"

#include <gmock/gmock.h>

namespace vantor::collector {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kTrace = "Crash reason: SIGSEGV /SEGV_MAPERR\n"
                               "Crash address: 0x0\n"
                               "Crashed in: crash() (crashes.cpp:32)\n"
                               "\n"
                               "Thread 0 (crashed)\n"
                               " 0  app!crash() [crashes.cpp:32 + 0x9]\n"
                               "\n"
                               "No symbols: libc.so.6 ABC0\n"
                               "No symbols: my lib.so DEF1\n";

TEST(StackTextTest, EscapesEveryControlCharacterAndNothingElse) {
    EXPECT_EQ(escaped("plain ~ text \\ \xc3\xa4"), "plain ~ text \\ \xc3\xa4");
    EXPECT_EQ(escaped(std::string("a\0b\n\r\t\x1b\x1f\x7f", 9)), "a\\x00b\\x0a\\x0d\\x09\\x1b\\x1f\\x7f");
}

TEST(StackTextTest, PutsTheParametersBehindTheHead) {
    const std::string text = withParameters(kTrace, {{"version", "1.2"}, {"guid", "g"}});
    EXPECT_EQ(text.substr(0, text.find("Thread")), "Crash reason: SIGSEGV /SEGV_MAPERR\n"
                                                   "Crash address: 0x0\n"
                                                   "Crashed in: crash() (crashes.cpp:32)\n"
                                                   "\n"
                                                   "Parameters:\n"
                                                   "  guid: g\n"
                                                   "  version: 1.2\n"
                                                   "\n");
    EXPECT_TRUE(text.ends_with(std::string(kTrace).substr(std::string(kTrace).find("Thread"))));
}

TEST(StackTextTest, SaysThatThereAreNoParameters) {
    EXPECT_EQ(withParameters("Crash reason: none\n\nThread 0\n", {}),
              "Crash reason: none\n\nParameters: none\n\nThread 0\n");
}

TEST(StackTextTest, PutsTheParametersBelowAFailure) {
    EXPECT_EQ(withParameters(failedWalkText("it took longer than 30 s."), {{"name", "value"}}),
              "Walk failed: it took longer than 30 s.\n\nParameters:\n  name: value\n");
}

TEST(StackTextTest, SumsUpACrash) {
    const StackSummary summary = summaryOf(withParameters(kTrace, {}));
    EXPECT_EQ(summary.crash_reason, "SIGSEGV /SEGV_MAPERR");
    EXPECT_EQ(summary.crashed_in, "crash() (crashes.cpp:32)");
    EXPECT_EQ(summary.failure, "");
}

TEST(StackTextTest, SumsUpAFailure) {
    const StackSummary summary = summaryOf(withParameters(failedWalkText("no\nheader."), {}));
    EXPECT_EQ(summary.crash_reason, "");
    EXPECT_EQ(summary.crashed_in, "");
    EXPECT_EQ(summary.failure, "no\\x0aheader.");
}

TEST(StackTextTest, SumsUpWhatIsNoStackTrace) {
    for (const char* text : {"", "\n", "nothing", "\n\nCrash reason: x\n"})
        EXPECT_EQ(summaryOf(text).crash_reason, "") << text;
}

TEST(StackTextTest, ListsTheModulesWithoutSymbols) {
    EXPECT_THAT(missingModulesOf(withParameters(kTrace, {})),
                ElementsAre(SymbolModule{"libc.so.6", "ABC0"}, SymbolModule{"my lib.so", "DEF1"}));
    EXPECT_EQ(missingModuleLine({"my lib.so", "DEF1"}), "No symbols: my lib.so DEF1\n");
}

TEST(StackTextTest, ListsNoModuleThatIsNotValid) {
    EXPECT_THAT(missingModulesOf("No symbols: \nNo symbols: a\nNo symbols: a/b AB\nNo symbols: a XY\n"
                                 "No symbols: .. AB\n No symbols: a AB\n"),
                IsEmpty());
}

TEST(StackTextTest, BelievesNoParameterThatLooksLikeALine) {
    const std::map<std::string, std::string> forged = {
        {"a", "b\nCrash reason: forged\n\nNo symbols: forged AB\n"},
        {"x\n\nNo symbols: forged AB\nCrashed in", "forged"},
        {"No symbols: forged AB", "No symbols: forged AB"}};
    const std::string text = withParameters("Crash reason: true\nCrashed in: true\n", forged);
    EXPECT_EQ(summaryOf(text).crash_reason, "true");
    EXPECT_EQ(summaryOf(text).crashed_in, "true");
    EXPECT_THAT(missingModulesOf(text), IsEmpty());
}

} // namespace
} // namespace vantor::collector
