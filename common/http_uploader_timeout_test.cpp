// What becomes of uploads to servers that fall silent. The uploader of this program loses its patience
// sooner.

#include "tests/support/eventually.h"
#include "tests/support/upload_fixture.h"

#include <atomic>
#include <gmock/gmock.h>

namespace vantor {
namespace {

using test::Answer;
using test::Completions;
using test::eventually;
using test::ReceivedRequest;
using testing::Each;
using testing::Field;
using testing::SizeIs;
using HttpUploaderTimeoutTest = test::UploadFixture;
using UploadResponse = HttpUploader::UploadResponse;

constexpr int32_t kTimedOut = 28; // libcurl's code

TEST_F(HttpUploaderTimeoutTest, AServerThatAcceptsAndSaysNothingTimesOut) {
    EXPECT_EQ(errorWith({.mute = true}), kTimedOut);
}

TEST_F(HttpUploaderTimeoutTest, AServerThatFallsSilentAfterTheBodyTimesOut) {
    EXPECT_EQ(errorWith({.answer = [](const ReceivedRequest&) { return Answer::silence(); }}), kTimedOut);
}

TEST_F(HttpUploaderTimeoutTest, AServerThatStopsReadingTimesOut) {
    startServer({.stall_after_body_bytes = 100'000});
    EXPECT_EQ(uploadLarge(*uploaderTo(url())).error, kTimedOut);
}

TEST_F(HttpUploaderTimeoutTest, BehindASilentServerTheQueueFailsAtOnce) {
    startServer({.mute = true});
    Completions completions;
    const auto uploader = uploaderTo(url());
    {
        const HttpUploader::ScopedHold until_all_are_queued(*uploader);
        for (int i = 0; i < 50; ++i)
            uploader->upload({{"crash", file()}}, {}, completions.callback());
    }
    uploader->waitUploadsComplete();
    EXPECT_THAT(completions.responses(), SizeIs(50));
    EXPECT_THAT(completions.responses(), Each(Field(&UploadResponse::error, kTimedOut)));
    EXPECT_LE(m_server->connectionsAccepted(), 8 + 7); // some are tried again before the eighth has failed
}

TEST_F(HttpUploaderTimeoutTest, AServerThatIsBackAfterItsSilenceIsAskedAgain) {
    std::atomic<bool> is_silent = true;
    startServer({.answer = [&](const ReceivedRequest&) {
        return is_silent ? Answer::silence() : Answer::status_code(200);
    }});
    Completions completions;
    const auto uploader = uploaderTo(url());
    for (int i = 0; i < 12; ++i)
        uploader->upload({{"crash", file()}}, {}, completions.callback());
    uploader->waitUploadsComplete();
    EXPECT_THAT(completions.responses(), Each(Field(&UploadResponse::error, kTimedOut)));
    is_silent = false;
    EXPECT_TRUE(eventually([&] { return upload(*uploader).error == 0; })); // within the limits, when it can
}

} // namespace
} // namespace vantor
