#include "tests/support/crash_server_test.h"
#include "tests/support/messages.h"

namespace vantor::test {

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using MemoryTest = CrashServerTest;

// A descriptor that cannot be read announces 4,294,967,295 records, 1.4 TB in all.
TEST_F(MemoryTest, ADescriptorThatCannotBeReadEndsTheServerAndFreesTheClient) {
    const auto application = startApplication();
    application->tell("limit memory 68719476736 68719476736"); // so that the allocation fails anywhere
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    application->tell("announce-address 1000");
    application->guard();
    EXPECT_EQ("signal 11", application->crash());
    EXPECT_EQ("signal 6", application->serverEnd());

    EXPECT_THAT(words(), HasSubstr("std::bad_alloc"));
    EXPECT_THAT(words(), testing::Not(HasSubstr("Crash!")));
    ASSERT_THAT(crashFiles(), ElementsAre(EndsWith(".dmp")));
    EXPECT_THAT(readFile(pathOf(crashFiles()[0])), testing::StartsWith("MDMP"));
    EXPECT_EQ(0, collector().connectionsAccepted());
}

} // namespace

} // namespace vantor::test
