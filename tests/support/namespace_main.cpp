// The entry of test programs that start processes: each run has a small world of its own.

#include "tests/support/namespaces.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <string_view>

int main(int argc, char** argv) {
    const bool only_lists_tests =
        std::any_of(argv, argv + argc, [](std::string_view word) { return word == "--gtest_list_tests"; });
    testing::InitGoogleMock(&argc, argv);
    if (only_lists_tests)
        return RUN_ALL_TESTS();
    vantor::test::runInNamespaces([] { return RUN_ALL_TESTS(); });
}
