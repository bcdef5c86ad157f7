#include "collector/header_value.h"

#include <gmock/gmock.h>

namespace vantor::collector {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(HeaderValueTest, TakesTheValueAndItsParametersApart) {
    const auto value =
        parseHeaderValue(" Form-Data ;\tName = word ; filename=\"a; b=c \";x=\"\" ", Escapes::Percent);
    ASSERT_TRUE(value);
    EXPECT_EQ(value->value, "form-data");
    EXPECT_THAT(value->parameters,
                ElementsAre(Pair("filename", "a; b=c "), Pair("name", "word"), Pair("x", "")));
}

TEST(HeaderValueTest, AValueNeedsNoParameters) {
    const auto value = parseHeaderValue(" text/plain", Escapes::Percent);
    ASSERT_TRUE(value);
    EXPECT_EQ(value->value, "text/plain");
    EXPECT_THAT(value->parameters, IsEmpty());
}

TEST(HeaderValueTest, UndoesTheEscapesOfEachWay) {
    const struct {
        const char* quoted;
        const char* by_percent;   // null: malformed
        const char* by_backslash; // likewise
    } cases[] = {
        {R"("a%22b")", "a\"b", "a%22b"},
        {R"("%0D%0A")", "\r\n", "%0D%0A"},
        {R"("%0d%41%%2")", "%0d%41%%2", "%0d%41%%2"},
        {R"("a\"b")", nullptr, "a\"b"},
        {R"("a\")", "a\\", nullptr},
        {R"("a\\")", "a\\\\", "a\\"},
        {R"("a\b")", "a\\b", "a\\b"},
        {R"("a\\\"b")", nullptr, "a\\\"b"},
        {"\"\t\xff\x01\"", "\t\xff\x01", "\t\xff\x01"},
    };
    for (const auto& each : cases) {
        for (const Escapes escapes : {Escapes::Percent, Escapes::Backslash}) {
            const char* expected = escapes == Escapes::Percent ? each.by_percent : each.by_backslash;
            const auto value = parseHeaderValue(std::string("v; name=") + each.quoted, escapes);
            ASSERT_EQ(value.has_value(), expected != nullptr) << each.quoted;
            if (value) {
                EXPECT_EQ(value->parameters.at("name"), expected) << each.quoted;
            }
        }
    }
}

TEST(HeaderValueTest, RefusesWhatIsMalformed) {
    for (const char* text : {"v;", "v; name", "v; =x", "v; name=", "v; name=a b", "v; name=\"a", "v; name=\"",
                             "v; name=\"a\"b", "v; name=\"a\" b=c", "v; na me=a", "v; name=a;",
                             "v; name=a; NAME=b", "v; name=a/b", "v; name=\"a\";;"})
        EXPECT_FALSE(parseHeaderValue(text, Escapes::Percent)) << text;
}

} // namespace
} // namespace vantor::collector
