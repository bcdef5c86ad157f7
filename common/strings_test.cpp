#include "common/strings.h"

#include <gmock/gmock.h>
#include <limits>

namespace vantor {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> split(const std::string& text, const char* separators, SplitOptions options) {
    std::vector<std::string> pieces = {"from before"};
    SplitString(text, separators, &pieces, options);
    return pieces;
}

TEST(SplitStringTest, DropsEmptyPieces) {
    EXPECT_THAT(split("a\nb\n", "\n", kSplitDropEmpty), ElementsAre("a", "b"));
    EXPECT_THAT(split("\n\na\n\nb", "\n", kSplitDropEmpty), ElementsAre("a", "b"));
    EXPECT_THAT(split("", "\n", kSplitDropEmpty), IsEmpty());
    EXPECT_THAT(split("\n", "\n", kSplitDropEmpty), IsEmpty());
}

TEST(SplitStringTest, KeepsEmptyPieces) {
    EXPECT_THAT(split("a,,b", ",", kSplitKeepEmpty), ElementsAre("a", "", "b"));
    EXPECT_THAT(split("a,", ",", kSplitKeepEmpty), ElementsAre("a", ""));
    EXPECT_THAT(split("", ",", kSplitKeepEmpty), ElementsAre(""));
}

TEST(SplitStringTest, EverySeparatorCharacterSeparates) {
    EXPECT_THAT(split("a,b;c", ",;", kSplitDropEmpty), ElementsAre("a", "b", "c"));
}

TEST(SplitStringTest, OtherBytesPassUnchanged) {
    const std::string text = std::string("\0\xff", 2) + "\r\t \nx";
    EXPECT_THAT(split(text, "\n", kSplitDropEmpty), ElementsAre(std::string("\0\xff", 2) + "\r\t ", "x"));
}

TEST(SplitStringTest, PartsLieInTheText) {
    const std::string text = "a\n\nlonger\n";
    std::vector<std::string_view> parts;
    SplitString(text, "\n", &parts, kSplitDropEmpty);
    ASSERT_THAT(parts, ElementsAre("a", "longer"));
    EXPECT_EQ(parts[0].data(), text.data());
    EXPECT_EQ(parts[1].data(), text.data() + 3);
}

TEST(StreamOperatorTest, IntegersArePlainDecimals) {
    EXPECT_EQ(toStringUsingStreamOperator<unsigned long>(1700000000123456789), "1700000000123456789");
    EXPECT_EQ(toStringUsingStreamOperator<unsigned long>(0), "0");
    EXPECT_EQ(toStringUsingStreamOperator(std::numeric_limits<unsigned long>::max()), "18446744073709551615");
}

} // namespace
} // namespace vantor
