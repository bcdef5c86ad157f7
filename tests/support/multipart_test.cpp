#include "tests/support/multipart.h"

#include <gtest/gtest.h>

namespace vantor::test {
namespace {

const std::string kType = "multipart/form-data; boundary=b";

/// A body with one part, of this header and this content.
std::string onePart(const std::string& header, const std::string& content = "x") {
    return "--b\r\n" + header + "\r\n\r\n" + content + "\r\n--b--\r\n";
}

std::string onePartNamed(const std::string& parameters) {
    return onePart("Content-Disposition: form-data; " + parameters);
}

TEST(MultipartTest, TellsFieldsAndFilesApart) {
    const auto form =
        parseMultipart(kType, "--b\r\n"
                              "Content-Disposition: form-data; name=\"guid\"\r\n"
                              "\r\n"
                              "1234\r\n"
                              "--b\r\n"
                              "Content-Disposition: form-data; name=\"crash\"; filename=\"1.dmp\"\r\n"
                              "Content-Type: application/octet-stream\r\n"
                              "\r\n"
                              "MDMP\r\n"
                              "--b--\r\n");
    ASSERT_TRUE(form);
    ASSERT_EQ(form->size(), 2U);
    EXPECT_EQ(form->at(0).name, "guid");
    EXPECT_EQ(form->at(0).filename, std::nullopt);
    EXPECT_EQ(form->at(0).content_type, "");
    EXPECT_EQ(form->at(0).body, "1234");
    EXPECT_EQ(form->at(1).name, "crash");
    EXPECT_EQ(form->at(1).filename, "1.dmp");
    EXPECT_EQ(form->at(1).content_type, "application/octet-stream");
    EXPECT_EQ(form->at(1).body, "MDMP");
}

TEST(MultipartTest, KeepsEveryByteOfABody) {
    std::string every_byte;
    for (int i = 0; i < 256; ++i)
        every_byte += static_cast<char>(i);
    for (const std::string& content :
         {every_byte, std::string(), std::string("\r\n"), std::string("\r\n\r\n"), std::string("\r\n--a\r\n"),
          std::string("\n--b--"), std::string("\r--b")}) {
        const auto form =
            parseMultipart(kType, onePart("Content-Disposition: form-data; name=\"n\"", content));
        ASSERT_TRUE(form) << testing::PrintToString(content);
        ASSERT_EQ(form->size(), 1U);
        EXPECT_EQ(form->front().body, content);
    }
}

TEST(MultipartTest, TakesNamesAsTheyStandBetweenTheQuotationMarks) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"name=\"two words\"", "two words"},
        {"name=\"a;b=c\"", "a;b=c"},
        {"name=\"\"", ""},
        {"name=\"back\\slash\\\"", "back\\slash\\"},
        {"name=\"a%22b\"", "a%22b"},
        {"name=word", "word"},
        {"NAME=\"spaced\" ", "spaced"},
        {"other=1; name=\"second\"", "second"},
        {"name=\"gr\xC3\xBC\xC3\x9F\"", "gr\xC3\xBC\xC3\x9F"},
    };
    for (const auto& [parameters, name] : cases) {
        const auto form = parseMultipart(kType, onePartNamed(parameters));
        ASSERT_TRUE(form) << parameters;
        EXPECT_EQ(form->front().name, name);
    }
}

TEST(MultipartTest, TellsAnEmptyFileNameFromNone) {
    const auto form = parseMultipart(kType, onePartNamed("name=\"n\"; filename=\"\""));
    ASSERT_TRUE(form);
    EXPECT_EQ(form->front().filename, "");
}

TEST(MultipartTest, TakesAnyWritingOfTheBoundary) {
    for (const char* type : {"multipart/form-data; boundary=b", "Multipart/Form-Data;Boundary=\"b\"",
                             "multipart/form-data; charset=utf-8; boundary=b"})
        EXPECT_TRUE(parseMultipart(type, onePartNamed("name=\"n\""))) << type;
}

TEST(MultipartTest, RefusesOtherTypesAndUnusableBoundaries) {
    const std::string too_long = "multipart/form-data; boundary=" + std::string(71, 'b');
    for (const std::string& type :
         {std::string(), std::string("text/plain"), std::string("multipart/mixed; boundary=b"),
          std::string("multipart/form-data"), std::string("multipart/form-data; boundary="),
          std::string("multipart/form-data; boundary=\"\""), std::string("multipart/form-data; boundary=\"b"),
          std::string("multipart/form-data boundary=b"), std::string("multipart/form-data; boundary=b x"),
          too_long})
        EXPECT_FALSE(parseMultipart(type, onePartNamed("name=\"n\""))) << type;
}

TEST(MultipartTest, RefusesABodyThatIsCutAnywhere) {
    const std::string body = "--b\r\n"
                             "Content-Disposition: form-data; name=\"one\"\r\n\r\n1\r\n"
                             "--b\r\n"
                             "Content-Disposition: form-data; name=\"two\"; filename=\"f\"\r\n\r\n2\r\n"
                             "--b--";
    ASSERT_TRUE(parseMultipart(kType, body));
    ASSERT_TRUE(parseMultipart(kType, body + "\r\n"));
    for (size_t length = 0; length < body.size(); ++length)
        EXPECT_FALSE(parseMultipart(kType, body.substr(0, length))) << "cut after " << length << " bytes";
    EXPECT_FALSE(parseMultipart(kType, body + "\r"));
}

TEST(MultipartTest, RefusesBytesOutsideTheParts) {
    const std::string body = onePartNamed("name=\"n\"");
    EXPECT_FALSE(parseMultipart(kType, "\r\n" + body));
    EXPECT_FALSE(parseMultipart(kType, "preamble\r\n" + body));
    EXPECT_FALSE(parseMultipart(kType, body + "x"));
    EXPECT_FALSE(parseMultipart(kType, body + "\r\n"));
    EXPECT_FALSE(parseMultipart(kType, "--b--\r\n"));
    EXPECT_FALSE(
        parseMultipart(kType, onePart("Content-Disposition: form-data; name=\"n\"", "a\r\n--bc\r\nd")));
}

TEST(MultipartTest, RefusesPartsWithoutAProperHeader) {
    for (const char* header :
         {"", "Content-Type: text/plain", "Content-Disposition: form-data",
          "Content-Disposition: form-data; filename=\"f\"", "Content-Disposition: attachment; name=\"n\"",
          "Content-Disposition: form-data; name=\"n", "Content-Disposition: form-data; name=two words",
          "Content-Disposition: form-data; name=", "Content-Disposition: form-data; =\"n\"",
          "Content-Disposition: form-data; name", "Content-Disposition: form-data; name=\"n\" x",
          "Content-Disposition form-data; name=\"n\"", "Content-Disposition : form-data; name=\"n\"",
          "Content-Disposition: form-data; name=\"n\"\nX: y",
          "Content-Disposition: form-data; name=\"n\"\r\nContent-Disposition: form-data; name=\"m\""})
        EXPECT_FALSE(parseMultipart(kType, onePart(header))) << header;
}

TEST(MultipartTest, RefusesAPartWithoutAnEmptyLine) {
    EXPECT_FALSE(parseMultipart(kType, "--b\r\nContent-Disposition: form-data; name=\"n\"\r\n--b--\r\n"));
    EXPECT_FALSE(parseMultipart(kType, "--b\r\nContent-Disposition: form-data; name=\"n\"\r\n\r\n--b--\r\n"));
}

} // namespace
} // namespace vantor::test
