#include "collector/part_header.h"

#include <gtest/gtest.h>

namespace vantor::collector {
namespace {

const std::string kNamed = "Content-Disposition: form-data; name=\"a\"\r\n";

TEST(PartHeaderTest, AFieldHasANameAndAFileAFilenameToo) {
    const auto field = parsePartHeader(kNamed);
    ASSERT_TRUE(field);
    EXPECT_EQ(field->name, "a");
    EXPECT_EQ(field->filename, std::nullopt);

    const auto file = parsePartHeader("Content-Disposition: form-data; name=\"crash\"; filename=\"\"\r\n");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->name, "crash");
    EXPECT_EQ(file->filename, "");
}

TEST(PartHeaderTest, ReadsOverOtherLines) {
    const auto part =
        parsePartHeader("Content-Type: a/b; ;;\r\nX: \"\r\nCONTENT-disposition:form-data;name=a\r\n"
                        "Content-Transfer-Encoding: base64\r\n");
    ASSERT_TRUE(part);
    EXPECT_EQ(part->name, "a");
}

TEST(PartHeaderTest, TakesNamesOfBothWaysOfWriting) {
    const struct {
        const char* written;
        const char* name;
    } cases[] = {
        {R"(a%22b%0Dc%41)", "a\"b\rc%41"}, // as today
        {R"(path\)", "path\\"},
        {R"(C:\\d)", "C:\\\\d"},
        {R"(a\"b%22)", "a\"b%22"}, // as before
        {R"(a\"b\\)", "a\"b\\"},
        {R"(a\"; b=\"c)", "a\"; b=\"c"},
        {"", ""},
    };
    for (const auto& each : cases) {
        const auto part = parsePartHeader(std::string("Content-Disposition: form-data; name=\"") +
                                          each.written + "\"; filename=\"x\"\r\n");
        ASSERT_TRUE(part) << each.written;
        EXPECT_EQ(part->name, each.name);
        EXPECT_EQ(part->filename, "x");
    }
}

TEST(PartHeaderTest, RefusesWhatIsMalformed) {
    for (const std::string& lines : {
             std::string(),
             std::string("\r\n"),
             std::string("Content-Type: text/plain\r\n"),
             std::string("Content-Disposition: form-data\r\n"),
             std::string("Content-Disposition: form-data; filename=\"a\"\r\n"),
             std::string("Content-Disposition: attachment; name=\"a\"\r\n"),
             std::string("Content-Disposition: form-data; name=\"a\r\n"),
             kNamed + kNamed,
             kNamed + "no colon\r\n",
             kNamed + "two words: x\r\n",
             kNamed + ": no name\r\n",
             kNamed + " folded\r\n",
             kNamed + "\r\n",
             kNamed + "X: 1",
             kNamed + "X: 1\n2\r\n",
             kNamed + "X: 1\r2\r\n",
             kNamed + std::string("X: 1\0\r\n", 8),
         })
        EXPECT_FALSE(parsePartHeader(lines)) << lines;
}

} // namespace
} // namespace vantor::collector
