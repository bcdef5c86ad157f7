#include "client/status.h"

#include <gtest/gtest.h>
#include <set>
#include <string>

namespace vantor::client {

namespace {

TEST(StatusTest, IsExplainedAsTheErrorThatItStandsFor) {
    std::set<std::string> sentences;
    for (int i = static_cast<int>(AnnotationError::None); i <= static_cast<int>(AnnotationError::Memory);
         ++i) {
        const auto error = static_cast<AnnotationError>(i);
        if (error == AnnotationError::Capacity) {
            EXPECT_EQ(VANTOR_CRASH_OPTION, statusOf(error)); // as other options that are not allowed
            continue;
        }
        EXPECT_STREQ(explain(error), vantor_crash_explain(statusOf(error)));
        EXPECT_TRUE(sentences.insert(explain(error)).second) << i;
    }
}

} // namespace

} // namespace vantor::client
