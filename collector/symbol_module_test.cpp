#include "collector/symbol_module.h"

#include <gtest/gtest.h>

namespace vantor::collector {
namespace {

TEST(SymbolModuleTest, IsReadFromTheFirstLineOfASymbolFile) {
    const auto module = moduleOfSymbolFile("MODULE Linux x86_64 0123456789ABCDEF0 libc.so.6");
    EXPECT_EQ(module, (SymbolModule{"libc.so.6", "0123456789ABCDEF0"}));
}

TEST(SymbolModuleTest, MayHaveSpacesInItsName) {
    const auto module = moduleOfSymbolFile("MODULE Linux x86_64 AB my program\r");
    EXPECT_EQ(module, (SymbolModule{"my program", "AB"}));
}

TEST(SymbolModuleTest, IsNotReadFromAnotherLine) {
    for (const char* line :
         {"", "MODULE", "MODULE Linux", "MODULE Linux x86_64", "MODULE Linux x86_64 AB",
          "MODULE Linux x86_64 AB ", "MODULE Linux x86_64  name", "module Linux x86_64 AB name",
          "FILE 0 name", "MODULELinux x86_64 AB name", "MODULE Linux x86_64 XY name",
          "MODULE Linux x86_64 AB ../name", "MODULE Linux x86_64 ../AB name"})
        EXPECT_EQ(moduleOfSymbolFile(line), std::nullopt) << line;
}

TEST(SymbolModuleTest, HasNoNameThatLeadsElsewhere) {
    for (const std::string& file : {std::string(""), std::string("."), std::string(".."), std::string("/"),
                                    std::string("a/b"), std::string("../a"), std::string("/a"),
                                    std::string("a\nb"), std::string("a\0b", 3), std::string("a\x7f")})
        EXPECT_FALSE(isValid({file, "AB"})) << file;
    for (const char* file : {"a", "...", ".a", "a.so", "a b", "[vdso]", "\xc3\xa4"})
        EXPECT_TRUE(isValid({file, "AB"})) << file;
}

TEST(SymbolModuleTest, HasHexadecimalDigitsForAnIdentifier) {
    for (const char* id : {"", "G", "a-b", "AB ", "0x12", ".", "..", "A/B", "\xc3\xa4"})
        EXPECT_FALSE(isValid({"file", id})) << id;
    EXPECT_TRUE(isValid({"file", "0123456789abcdefABCDEF"}));
}

TEST(SymbolModuleTest, HasPartsOfLimitedLength) {
    EXPECT_TRUE(isValid({std::string(250, 'f'), std::string(64, 'a')}));
    EXPECT_FALSE(isValid({std::string(251, 'f'), "a"}));
    EXPECT_FALSE(isValid({"f", std::string(65, 'a')}));
}

} // namespace
} // namespace vantor::collector
