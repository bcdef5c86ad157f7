// The entry of tests that walk dumps in a child process.

#include "collector/stack_trace.h"
#include "collector/walk_child.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    if (vantor::collector::isWalkChild(argc, argv))
        vantor::collector::runWalkChild(argc, argv);

    vantor::collector::silenceBreakpad();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
