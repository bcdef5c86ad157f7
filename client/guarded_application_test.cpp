// Applications that end, by a crash or otherwise, while a guardian keeps their server.

#include "tests/support/crash_server_test.h"
#include "tests/support/eventually.h"
#include "tests/support/messages.h"
#include "tests/support/namespaces.h"

#include <csignal>
#include <fcntl.h>
#include <sched.h>

namespace vantor::test {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

class GuardedApplicationTest : public CrashServerTest {
protected:
    /// An application whose server serves, with its crash handler in place. The processes' ids are as it sees
    /// them.
    void start() {
        m_application = startApplication();
        m_server = std::stoi(tell("guardian " + std::string(kCrashServer)));
        m_guardian = std::stoi(tell("guardian-pid"));
        tell("guard");
        m_application->annotate({record("product", "sample")});
    }

    std::string tell(const std::string& command) const { return m_application->tell(command); }

    void replaceServer() {
        EXPECT_EQ(0, kill(m_server, SIGKILL));
        EXPECT_TRUE(eventually([&] { return tell("restarts") == "1"; }));
        m_server = std::stoi(tell("server-pid"));
    }

    void expectTheServerEnds() const {
        const std::optional<int> end = waitForOrphan(m_server);
        EXPECT_EQ("exit 0", end ? describeEnd(*end) : "still there");
        EXPECT_TRUE(waitForOrphan(m_guardian).has_value());
        EXPECT_THAT(lines(), Contains(clientExited(m_guardian)));
    }

    std::unique_ptr<Application> m_application;
    pid_t m_server = -1;
    pid_t m_guardian = -1;
};

TEST_F(GuardedApplicationTest, IsDumpedWithItsAnnotations) {
    start();
    EXPECT_EQ("signal 11", m_application->crash());
    expectTheServerEnds();
    EXPECT_THAT(annotationsOf(onlyReport()), ElementsAre(Pair("product", "sample")));
    EXPECT_EQ("MDMP", dumpOf(onlyReport()).substr(0, 4));
}

TEST_F(GuardedApplicationTest, IsDumpedByTheSecondServer) {
    start();
    EXPECT_EQ("no child", tell("wait"));
    replaceServer();
    EXPECT_EQ("no child", tell("wait"));
    EXPECT_EQ("signal 6", m_application->crash("abort"));
    expectTheServerEnds();
    EXPECT_THAT(annotationsOf(onlyReport()), ElementsAre(Pair("product", "sample")));
}

// A process that shares its working directory with another one may not.
TEST_F(GuardedApplicationTest, CanEnterAMountNamespace) {
    start();
    EXPECT_EQ("done", tell("mounts"));
    EXPECT_EQ("exit 0", m_application->end());
    expectTheServerEnds();
}

TEST_F(GuardedApplicationTest, HasItsForkedChildrenDumped) {
    start();
    EXPECT_EQ("signal 11", m_application->inChild("crash segmentation-fault").end);
    awaitUploads(1);
    EXPECT_EQ("exit 0", m_application->end());
    expectTheServerEnds();
}

TEST_F(GuardedApplicationTest, TakesTheServerWithItWhenItExits) {
    start();
    EXPECT_EQ("exit 0", m_application->end());
    expectTheServerEnds();
    EXPECT_THAT(crashFiles(), IsEmpty());
}

TEST_F(GuardedApplicationTest, TakesTheServerWithItWhenItIsKilled) {
    start();
    m_application->kill();
    expectTheServerEnds();
}

TEST_F(GuardedApplicationTest, TakesTheServerWithItWhenItExecutesAnotherProgram) {
    start();
    tell("execute " + std::string(kTestApplication));
    const std::optional<int> end = waitForOrphan(m_server);
    EXPECT_EQ("exit 0", end ? describeEnd(*end) : "still there");
    EXPECT_EQ("no child", tell("wait"));
    EXPECT_EQ("exit 0", m_application->end());
}

// As the only program of a container is. When it dies, the kernel ends all others.
TEST_F(GuardedApplicationTest, IsDumpedWhenItIsProcessOne) {
    closeCollector();
    const Descriptor own(open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, unshare(CLONE_NEWPID)); // for the children to come
    m_application = startApplication();
    tell("processes");
    ASSERT_EQ(0, setns(own.get(), CLONE_NEWPID));
    EXPECT_EQ("3", tell("guardian " + std::string(kCrashServer)));
    EXPECT_EQ("2", tell("guardian-pid"));
    tell("guard");
    m_application->annotate({record("product", "sample")});
    EXPECT_EQ("no child", tell("wait"));
    EXPECT_EQ("signal 11", m_application->crash());
    EXPECT_THAT(crashFiles(), ElementsAre(testing::EndsWith(".dmp"), testing::EndsWith(".params")));
}

TEST_F(GuardedApplicationTest, DiesOfItsSignalWhereThereIsNoServer) {
    start();
    EXPECT_EQ(0, kill(m_guardian, SIGKILL)); // and the server with it
    EXPECT_TRUE(waitForOrphan(m_server).has_value());
    EXPECT_EQ("signal 11", m_application->crash());
    EXPECT_THAT(crashFiles(), IsEmpty());
}

} // namespace

} // namespace vantor::test
