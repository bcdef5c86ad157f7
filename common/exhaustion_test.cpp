// What happens in a process that has no descriptor left.

#include "common/http_uploader.h"

#include "tests/support/captured_standard_error.h"
#include "tests/support/no_descriptors.h"
#include "tests/support/upload_fixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

namespace vantor {
namespace {

class ExhaustionTest : public test::UploadFixture {};

TEST_F(ExhaustionTest, WithoutAReserveFilesTakeTheLastDescriptor) {
    const rlimit limit = {128, 128};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<std::shared_ptr<File>> files;
    while (const auto opened = file())
        files.push_back(opened);
    EXPECT_EQ(fcntl(0, F_DUPFD, 0), -1);
}

TEST_F(ExhaustionTest, ALibraryThatCannotBeLoadedIsSaidOnceAndTriedAgain) {
    startServer();
    const std::vector<std::shared_ptr<File>> files = {file(), file()};
    test::Completions completions;
    const auto uploader = uploaderTo(url());
    std::string text;
    {
        const test::CapturedStandardError standard_error;
        const test::NoDescriptorsToBeHad none;
        for (const auto& file : files) {
            uploader->upload({{"crash", file}}, {}, completions.callback());
            uploader->waitUploadsComplete();
        }
        text = standard_error.text();
    }
    EXPECT_THAT(completions.responses(), testing::SizeIs(2));
    EXPECT_THAT(completions.responses(),
                testing::Each(testing::Field(&HttpUploader::UploadResponse::error, 2)));
    EXPECT_THAT(text, testing::MatchesRegex("Cannot load libcurl.so.4, nothing will be uploaded: [^\n]+\n"));
    EXPECT_EQ(upload(*uploader).error, 0);
}

} // namespace
} // namespace vantor
