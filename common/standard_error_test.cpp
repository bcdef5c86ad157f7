#include "common/standard_error.h"

#include <gtest/gtest.h>
#include <iostream>

namespace vantor {
namespace {

TEST(StandardErrorTest, IsTheStandardStream) {
    EXPECT_EQ(&standardError(), &std::cerr);
}

} // namespace
} // namespace vantor
