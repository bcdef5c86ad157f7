// The collector under strace, which delays its calls.

#include "tests/support/collector_process.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_directory.h"

#include <csignal>
#include <gtest/gtest.h>

namespace vantor::test {

namespace {

/// The child has all of the collector's descriptors until it runs another program.
TEST(TracedCollectorTest, StartsAgainAlthoughTheKilledOneWasStartingAWalk) {
    const TemporaryDirectory directory;
    const CertificateAuthority authority(directory.path());
    const std::string name = "01234567-0000-1111-22223333-44445555";
    {
        CollectorProcess killed(authority, directory.path(), {},
                                {"strace", "-D", "-f", "-o", directory / "strace", "-e", "trace=dup2", "-e",
                                 "inject=dup2:delay_enter=1000000"});
        EXPECT_EQ(200, killed.sendReport({}, name, smallMinidump()));
        EXPECT_TRUE(
            eventually([&] { return readFile(directory / "strace").find("dup2(") != std::string::npos; }));
        EXPECT_EQ(-SIGKILL, killed.end(SIGKILL));
    }
    const CollectorProcess collector(authority, directory.path());
    EXPECT_NE("", collector.stackTrace(name));
}

} // namespace

} // namespace vantor::test
