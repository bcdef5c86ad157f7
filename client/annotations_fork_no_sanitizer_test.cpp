// Children that are forked while another thread is in the middle of a change. No sanitizer: in such a child
// ThreadSanitizer looks at nothing, and without its fork handlers it does not work.

#include "client/annotations.h"
#include "tests/support/running_setter.h"
#include "tests/support/shown_annotations.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using vantor::client::AnnotationError;
using vantor::client::Annotations;
using vantor::test::complaintAbout;
using vantor::test::Params;
using vantor::test::RunningSetter;
using vantor::test::tableThatIsFilled;

constexpr int kRounds = 300;

/// What a child finds that was forked in the middle of a change: 0, or the number of what is wrong.
int lookAroundInChild(Annotations& annotations) {
    (void)alarm(30); // instead of hanging
    const auto shown = [&annotations] { return vantor::test::shownAnnotations(annotations.descriptor()); };
    Params expected = shown();
    if (!complaintAbout(expected).empty())
        return 1;
    if (annotations.set("child", "1") != AnnotationError::None)
        return 2;
    expected["child"] = "1";
    if (shown() != expected)
        return 3;
    for (const char* name : {"first", "child", "second", "child"}) {
        if (annotations.set(name, "2") != AnnotationError::None)
            return 4;
        expected[name] = "2";
    }
    if (annotations.clear("child") != AnnotationError::None)
        return 5;
    expected.erase("child");
    return shown() == expected ? 0 : 6;
}

void forkWhileSetting(pid_t (*fork_function)()) {
    const auto annotations = tableThatIsFilled();
    const RunningSetter setter(*annotations);
    for (int round = 0; round < kRounds; ++round) {
        const uint64_t before = setter.number();
        const pid_t child = fork_function();
        if (child == 0)
            _exit(lookAroundInChild(*annotations));
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0) << "round " << round;
        while (setter.number() == before) // the parent's setter goes on
            continue;
    }
}

TEST(AnnotationsForkTest, AChildThatIsForkedAtAnyMomentHasWholeAnnotationsAndCanSet) {
    forkWhileSetting(fork);
}

TEST(AnnotationsForkTest, SoHasAChildWhoseForkRunsNoHandlers) {
    forkWhileSetting(_Fork);
}

} // namespace
