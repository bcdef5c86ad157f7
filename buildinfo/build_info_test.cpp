#include "buildinfo/build_info.h"

#include <csignal>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <string>

namespace {

constexpr size_t kSectionSize = 32768;

TEST(BuildInfoTest, EveryCallReturnsTheSamePointer) {
    EXPECT_EQ(getBuildInfo(), getBuildInfo());
}

TEST(BuildInfoTest, TheTextEndsBeforeTheSectionAndZerosFollow) {
    const char* record = getBuildInfo();
    const size_t length = strnlen(record, kSectionSize);
    ASSERT_LT(length, kSectionSize);
    EXPECT_EQ(std::string(record + length, kSectionSize - length), std::string(kSectionSize - length, '\0'));
}

TEST(BuildInfoTest, TheRecordHasItsFieldsInOrder) {
    EXPECT_THAT(getBuildInfo(),
                testing::MatchesRegex("metadata \\{\n"
                                      "build_type: \"[A-Za-z]+\"\n"
                                      "built_at: \"[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\"\n"
                                      "build_timestamp: [0-9]+\\.[0-9]+\n"
                                      "built_by: \"[^\"\n]+\"\n"
                                      "built_on: \"[^\"\n]+\"\n"
                                      "\\}\n"
                                      "version_metadata \\{\n"
                                      "software_version: \"[0-9]+\\.[0-9]+\\.[0-9]+\"\n"
                                      "software_channel: \"[^\"\n]+\"\n"
                                      "\\}\n"));
}

TEST(BuildInfoDeathTest, TheRecordCannotBeChanged) {
    EXPECT_EXIT(
        {
            (void)signal(SIGSEGV, SIG_DFL); // a sanitizer has a handler of its own
            *const_cast<char*>(getBuildInfo()) = 'x';
        },
        testing::KilledBySignal(SIGSEGV), "");
}

TEST(BuildInfoTest, TheProfilerIsLoaded) {
    EXPECT_NE(dlsym(RTLD_DEFAULT, "ProfilerStart"), nullptr);
}

} // namespace
