#include "collector/incoming_report.h"
#include "tests/support/printed_rejection.h"
#include "tests/support/small_disk.h"
#include "tests/support/small_minidump.h"
#include "tests/support/temporary_directory.h"

#include <filesystem>
#include <gmock/gmock.h>

namespace vantor::collector {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const std::string kName = "01234567-89ab-cdef-01234567-89abcdef";
const std::string kOther = "fedcba98-89ab-cdef-01234567-89abcdef";
const std::string kDump = test::SmallMinidump().bytes();

class FullDiskTest : public testing::Test {
protected:
    std::string data() const { return m_directory / "data"; }

    /// Everything below the data directory but the test's filler.
    std::vector<std::string> entries() const {
        std::vector<std::string> paths;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(data()))
            if (entry.path().filename() != "filler")
                paths.push_back(entry.path().lexically_relative(data()).string());
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    static std::optional<Rejection> upload(ReportStore& store, const std::string& name,
                                           const std::string& dump, const Params& params) {
        IncomingReport report(store);
        for (const auto& [field, value] : params)
            EXPECT_EQ(report.field(field, value), std::nullopt);
        std::optional<Rejection> rejection = report.beginFile("crash", name + ".dmp");
        if (!rejection)
            rejection = report.fileData(dump);
        if (!rejection)
            rejection = report.endFile();
        return rejection ? rejection : report.commit();
    }

private:
    test::TemporaryDirectory m_directory;
};

TEST_F(FullDiskTest, AFullDiskRefusesForNowAndKeepsNothing) {
    const test::SmallDisk disk(data(), "size=256k");
    ReportStore store(data());
    ASSERT_EQ(store.recover(), std::nullopt);
    ASSERT_EQ(upload(store, kName, kDump, {{"a", "1"}}), std::nullopt);
    const std::vector<std::string> before = entries();
    const std::string full = ": No space left on device.";
    disk.fillBut(8192);

    // No room for the dump; for the parameters; for those that are fuller.
    EXPECT_EQ(upload(store, kOther, kDump + std::string(8192, 'x'), {}),
              (Rejection{Rejection::Kind::NoStorage, "The dump cannot be stored" + full}));
    EXPECT_EQ(upload(store, kOther, kDump, {{"a", std::string(4096, 'v')}}),
              (Rejection{Rejection::Kind::NoStorage, "The report cannot be stored" + full}));
    EXPECT_EQ(upload(store, kName, kDump, {{"a", std::string(4096, 'v')}, {"b", "2"}}),
              (Rejection{Rejection::Kind::NoStorage, "The report cannot be stored" + full}));
    EXPECT_FALSE(store.storeStack(kName, std::string(12'288, 's'), {{"a", "1"}}));
    EXPECT_EQ(entries(), before);
    EXPECT_THAT(*store.params(kName), ElementsAre(Pair("a", "1")));

    EXPECT_EQ(upload(store, kOther, kDump, {{"a", "1"}}), std::nullopt);
    EXPECT_TRUE(store.find(kOther));
}

TEST_F(FullDiskTest, WithoutInodesNoDirectoriesStay) {
    // The root, incoming, reports, and the report's two files: then its directories find none, or one alone.
    for (const int inodes : {3, 4, 5, 6}) {
        const test::SmallDisk disk(data(), "nr_inodes=" + std::to_string(inodes));
        ReportStore store(data());
        ASSERT_EQ(store.recover(), std::nullopt);
        const auto rejection = upload(store, kName, kDump, {});
        ASSERT_TRUE(rejection) << inodes;
        EXPECT_EQ(rejection->kind, Rejection::Kind::NoStorage) << inodes;
        EXPECT_THAT(entries(), ElementsAre("incoming", "reports")) << inodes;
    }
    const test::SmallDisk disk(data(), "nr_inodes=7");
    ReportStore store(data());
    ASSERT_EQ(store.recover(), std::nullopt);
    EXPECT_EQ(upload(store, kName, kDump, {}), std::nullopt);
}

} // namespace
} // namespace vantor::collector
