#include "common/http_uploader.h"

#include "common/mutex.h"
#include "tests/support/upload_fixture.h"

#include <atomic>
#include <gmock/gmock.h>
#include <latch>
#include <sys/resource.h>
#include <thread>

namespace vantor {
namespace {

using test::Answer;
using test::Completions;
using test::ReceivedRequest;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::SizeIs;
using UploadResponse = HttpUploader::UploadResponse;

class HttpUploaderTest : public test::UploadFixture {};

/// How many threads this process has.
size_t threadCount() {
    std::vector<std::string> files;
    std::vector<std::string> threads;
    EXPECT_TRUE(File::listFiles("/proc/self/task", false, &files, &threads));
    return threads.size();
}

TEST_F(HttpUploaderTest, PostsTheParametersAndTheFileAsAForm) {
    startServer();
    EXPECT_EQ(upload(*uploaderTo(url()), {{"b", "2"}, {"a", "1"}}).error, 0);

    const ReceivedRequest request = m_server->requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/upload/");
    EXPECT_THAT(request.header("content-type"), testing::StartsWith("multipart/form-data; boundary="));
    ASSERT_THAT(request.form, SizeIs(3));
    EXPECT_EQ(request.form[0].name, "a");
    EXPECT_EQ(request.form[0].body, "1");
    EXPECT_EQ(request.form[0].filename, std::nullopt);
    EXPECT_EQ(request.form[1].name, "b");
    EXPECT_EQ(request.form[1].body, "2");
    EXPECT_EQ(request.form[2].name, "crash");
    EXPECT_EQ(request.form[2].filename, "report.dmp");
    EXPECT_EQ(request.form[2].content_type, "application/octet-stream");
    EXPECT_EQ(request.form[2].body, m_content);
}

TEST_F(HttpUploaderTest, ParametersArriveByteForByte) {
    startServer();
    std::map<std::string, std::string> params;
    for (int byte = 1; byte < 256; ++byte)
        params["value " + std::to_string(byte)] = std::string(3, static_cast<char>(byte));
    params["n\xc3\xa4me\t;=&%"] = "--\r\nContent-Disposition: form-data\r\n\r\n";
    EXPECT_EQ(upload(*uploaderTo(url()), params).error, 0);

    const ReceivedRequest request = m_server->requests().at(0);
    for (const auto& [name, value] : params) {
        ASSERT_NE(request.part(name), nullptr) << name;
        EXPECT_EQ(request.part(name)->body, value) << name;
    }
}

TEST_F(HttpUploaderTest, TheBodyIsSentWithoutAskingForLeave) {
    startServer();
    EXPECT_EQ(upload(*uploaderTo(url())).error, 0);
    EXPECT_EQ(m_server->requests().at(0).header("expect"), "");
}

TEST_F(HttpUploaderTest, TheCompletionComesOnceAndOnAnotherThread) {
    startServer();
    Completions completions;
    {
        const auto uploader = uploaderTo(url());
        uploader->upload({{"crash", file()}}, {}, completions.callback());
        uploader->waitUploadsComplete();
    }
    EXPECT_THAT(completions.threads(), ElementsAre(testing::Ne(std::this_thread::get_id())));
}

TEST_F(HttpUploaderTest, NothingIsBegunWhileItIsHeld) {
    startServer();
    Completions completions;
    const size_t threads = threadCount();
    const auto uploader = uploaderTo(url());
    {
        const HttpUploader::ScopedHold hold(*uploader);
        const HttpUploader::ScopedHold another(*uploader);
        uploader->upload({{"crash", file()}}, {}, completions.callback());
        uploader->upload({{"crash", file()}}, {}, completions.callback());
        EXPECT_EQ(threadCount(), threads);
    }
    uploader->waitUploadsComplete();
    EXPECT_THAT(completions.responses(), Each(Field(&UploadResponse::error, 0)));
    EXPECT_THAT(completions.responses(), SizeIs(2));
}

TEST_F(HttpUploaderTest, TheResponseHoldsTheSameFileObjects) {
    startServer();
    Completions completions;
    const auto uploader = uploaderTo(url());
    const auto first = file();
    const auto second = file();
    uploader->upload({{"a", first}, {"b", second}}, {}, completions.callback());
    uploader->waitUploadsComplete();
    const std::map<std::string, std::shared_ptr<File>> files = {{"a", first}, {"b", second}};
    EXPECT_EQ(completions.responses().at(0).files, files);
}

TEST_F(HttpUploaderTest, AStatusOf2xxIsSuccessAndAnyOtherIsTheError) {
    std::atomic<int> status = 0;
    startServer({.answer = [&](const ReceivedRequest&) { return Answer::status_code(status); }});
    const auto uploader = uploaderTo(url());
    for (const int accepted : {200, 201, 204, 299}) {
        status = accepted;
        const UploadResponse response = upload(*uploader);
        EXPECT_EQ(response.error, 0) << accepted;
        EXPECT_EQ(response.http_status, accepted);
    }
    for (const int refused : {300, 400, 404, 413, 500, 503}) {
        status = refused;
        const UploadResponse response = upload(*uploader);
        EXPECT_EQ(response.error, refused);
        EXPECT_EQ(response.http_status, refused);
    }
}

TEST_F(HttpUploaderTest, ARedirectIsNotFollowed) {
    startServer({.answer = [&](const ReceivedRequest&) {
        Answer answer = Answer::status_code(307);
        answer.headers = {{"Location", m_server->url() + "/elsewhere/"}};
        return answer;
    }});
    EXPECT_EQ(upload(*uploaderTo(url())).error, 307);
    EXPECT_THAT(m_server->requests(), ElementsAre(Field(&ReceivedRequest::target, "/upload/")));
}

TEST_F(HttpUploaderTest, TheAnswersBodyIsKeptWhenAskedFor) {
    startServer({.answer = [](const ReceivedRequest&) {
        return Answer::status_code(200, std::string(70'000, 'y'));
    }});
    HttpUploader keeping(url(), HttpUploader::Method::PostForm, {}, true);
    EXPECT_EQ(upload(keeping).body, std::string(65'536, 'y'));
    EXPECT_EQ(upload(*uploaderTo(url())).body, "");
}

TEST_F(HttpUploaderTest, FurtherHeadersGoWithEveryRequest) {
    startServer();
    HttpUploader uploader(url(), HttpUploader::Method::PostForm, {"X-First: 1", "X-Second: two"}, false);
    EXPECT_EQ(upload(uploader).error, 0);
    EXPECT_EQ(upload(uploader).error, 0);
    for (const ReceivedRequest& request : m_server->requests()) {
        EXPECT_EQ(request.header("x-first"), "1");
        EXPECT_EQ(request.header("x-second"), "two");
    }
}

TEST_F(HttpUploaderTest, ManyUploadsShareAFewConnections) {
    startServer();
    Completions completions;
    const auto uploader = uploaderTo(url());
    for (int i = 0; i < 100; ++i)
        uploader->upload({{"crash", file()}}, {{"number", std::to_string(i)}}, completions.callback());
    uploader->waitUploadsComplete();

    EXPECT_THAT(completions.responses(), SizeIs(100));
    EXPECT_THAT(completions.responses(), Each(Field(&UploadResponse::error, 0)));
    EXPECT_THAT(m_server->requests(), SizeIs(100));
    EXPECT_LE(m_server->connectionsAccepted(), 8);
}

TEST_F(HttpUploaderTest, SeveralUploadsAreUnderWayAtOnce) {
    std::latch all_there(8);
    startServer({.answer = [&](const ReceivedRequest&) {
        all_there.arrive_and_wait();
        return Answer::status_code(200);
    }});
    Completions completions;
    const auto uploader = uploaderTo(url());
    for (int i = 0; i < 8; ++i)
        uploader->upload({{"crash", file()}}, {}, completions.callback());
    uploader->waitUploadsComplete();
    EXPECT_THAT(completions.responses(), Each(Field(&UploadResponse::error, 0)));
}

TEST_F(HttpUploaderTest, UploadReturnsWhileACompletionIsBlocked) {
    startServer();
    Mutex mutex;
    std::latch is_completing(1);
    std::atomic<int> completed = 0;
    const auto uploader = uploaderTo(url());
    const auto complete = [&](const UploadResponse&) {
        if (completed == 0)
            is_completing.count_down();
        MutexLock lock(mutex);
        ++completed;
    };
    {
        MutexLock lock(mutex);
        uploader->upload({{"crash", file()}}, {}, complete);
        is_completing.wait();
        uploader->upload({{"crash", file()}}, {}, complete);
        EXPECT_EQ(completed, 0);
    }
    uploader->waitUploadsComplete();
    EXPECT_EQ(completed, 2);
}

TEST_F(HttpUploaderTest, ACompletionMayUploadAgain) {
    startServer();
    Completions completions;
    const auto uploader = uploaderTo(url());
    uploader->upload({{"crash", file()}}, {{"try", "1"}}, [&](const UploadResponse&) {
        uploader->upload({{"crash", file()}}, {{"try", "2"}}, completions.callback());
    });
    uploader->waitUploadsComplete();
    EXPECT_THAT(completions.responses(), ElementsAre(Field(&UploadResponse::error, 0)));
    EXPECT_THAT(m_server->requests(), SizeIs(2));
}

TEST_F(HttpUploaderTest, TheDestructorCompletesWhatIsQueuedOrUnderWay) {
    startServer({.answer = [](const ReceivedRequest&) { return Answer::silence(); }});
    Completions completions;
    {
        const auto uploader = uploaderTo(url());
        for (int i = 0; i < 20; ++i)
            uploader->upload({{"crash", file()}}, {}, completions.callback());
        EXPECT_TRUE(m_server->waitForRequests(8));
    }
    EXPECT_THAT(completions.responses(), SizeIs(20));
    EXPECT_THAT(completions.responses(), Each(Field(&UploadResponse::error, 42)));
    EXPECT_THAT(completions.responses(), Each(Field(&UploadResponse::files, SizeIs(1))));
}

TEST_F(HttpUploaderTest, TheThreadGivesWayToOthersAndTheCallerDoesNot) {
    startServer();
    const int caller = getpriority(PRIO_PROCESS, 0);
    int sender = 0;
    const auto uploader = uploaderTo(url());
    uploader->upload({{"crash", file()}}, {},
                     [&](const UploadResponse&) { sender = getpriority(PRIO_PROCESS, 0); });
    uploader->waitUploadsComplete();
    EXPECT_EQ(sender, std::max(caller, 10));
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), caller);
}

TEST_F(HttpUploaderTest, TheThreadStartsWithTheFirstUpload) {
    startServer();
    Completions completions;
    const auto uploader = uploaderTo(url());
    const size_t threads = threadCount();
    uploader->waitUploadsComplete();
    EXPECT_EQ(threadCount(), threads);
    uploader->upload({{"crash", file()}}, {}, completions.callback());
    EXPECT_GT(threadCount(), threads);
}

} // namespace
} // namespace vantor
