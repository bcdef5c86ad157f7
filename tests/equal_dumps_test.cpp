// The dumper that reads memory in pieces beside Breakpad's own: whatever the process, their dumps are the
// same.

#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/small_disk.h"
#include "tests/support/temporary_directory.h"

#include "google_breakpad/common/minidump_format.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sstream>

namespace vantor::test {

namespace {

using testing::HasSubstr;

/// A process that is stopped, and stays so while it is dumped: not even the system changes anything in its
/// memory.
class Pose {
public:
    explicit Pose(const std::vector<std::string>& arguments) : m_process(command(arguments)) {
        std::istringstream(m_process.readLine()) >> m_stack_pointer >> m_instruction_pointer;
        EXPECT_TRUE(eventually([this] { return areAllThreads("State:\tS"); })); // in their last call
        m_process.sendSignal(SIGSTOP);
        EXPECT_TRUE(eventually([this] { return areAllThreads("State:\tT"); }));
    }

    /// What this build of the dumper makes of it.
    std::string dump(const char* dumper) const {
        const std::string file = m_directory / "dump";
        EXPECT_EQ(0, dumpInto({file}, dumper));
        std::string dump = readFile(file);
        std::filesystem::remove(file);
        return dump;
    }

    /// Dumps it into one file after another, and returns how many dumps failed. `before` are words of a
    /// command that starts the dumper.
    int dumpInto(const std::vector<std::string>& files, const char* dumper,
                 const std::vector<std::string>& before = {}) const {
        std::vector<std::string> words = before;
        words.insert(words.end(),
                     {dumper, std::to_string(m_process.pid()), m_stack_pointer, m_instruction_pointer});
        words.insert(words.end(), files.begin(), files.end());
        return ChildProcess(words).wait();
    }

private:
    static std::vector<std::string> command(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), POSED_PROCESS);
        return arguments;
    }

    bool areAllThreads(const char* state) const {
        const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(m_process.pid()) + "/task");
        return std::all_of(begin(tasks), end(tasks), [state](const auto& task) {
            return readFile(task.path() / "status").find(state) != std::string::npos;
        });
    }

    TemporaryDirectory m_directory;
    ChildProcess m_process;
    std::string m_stack_pointer;
    std::string m_instruction_pointer;
};

template <typename Struct>
Struct structAt(const std::string& dump, size_t offset) {
    Struct result = {};
    if (offset + sizeof(result) <= dump.size())
        std::memcpy(&result, dump.data() + offset, sizeof(result));
    return result;
}

void clear(std::string& dump, size_t offset, size_t length) {
    std::fill_n(dump.begin() + static_cast<std::ptrdiff_t>(offset), length, '\0');
}

/// The libraries as the client's loader lists them: Breakpad copies its structs as they are, and what is
/// between their fields was never set.
void clearPaddingOfLibraries(std::string& dump, size_t offset) {
    const auto list = structAt<MDRawDebug64>(dump, offset);
    for (uint32_t i = 0; i < list.dso_count; ++i) {
        const size_t name = list.map + i * sizeof(MDRawLinkMap64) + offsetof(MDRawLinkMap64, name);
        clear(dump, name + sizeof(MDRVA),
              offsetof(MDRawLinkMap64, ld) - offsetof(MDRawLinkMap64, name) - sizeof(MDRVA));
    }
}

/// A dump without what differs in dumps of one moment: its time, the processors' clocks, what the system
/// tells of a process, such as by whom it is traced, and bytes that mean nothing.
std::string withoutChance(std::string dump) {
    const auto header = structAt<MDRawHeader>(dump, 0);
    EXPECT_EQ(static_cast<uint32_t>(MD_HEADER_SIGNATURE), header.signature);
    clear(dump, offsetof(MDRawHeader, time_date_stamp), sizeof(header.time_date_stamp));
    for (uint32_t i = 0; i < header.stream_count; ++i) {
        const size_t place = header.stream_directory_rva + i * sizeof(MDRawDirectory);
        const auto entry = structAt<MDRawDirectory>(dump, place);
        if (entry.stream_type == MD_LINUX_PROC_STATUS || entry.stream_type == MD_LINUX_CPU_INFO) {
            clear(dump, entry.location.rva, entry.location.data_size);
            clear(dump, place + offsetof(MDRawDirectory, location), sizeof(entry.location.data_size));
        } else if (entry.stream_type == MD_LINUX_DSO_DEBUG) {
            clearPaddingOfLibraries(dump, entry.location.rva);
        }
    }
    return dump;
}

/// Where two texts of one length begin to differ.
size_t firstDifference(const std::string& one, const std::string& other) {
    const auto [position, ignored] = std::mismatch(one.begin(), one.end(), other.begin());
    return position == one.end() ? std::string::npos : static_cast<size_t>(position - one.begin());
}

/// Dumps a pose by each dumper, and once more by Breakpad's: two of its dumps show that the pose is held.
void expectEqualDumps(const Pose& pose) {
    std::string stock, fast, again;
    const auto have_one_length = [&] { // unless a number in a text gets more digits meanwhile
        stock = withoutChance(pose.dump(STOCK_DUMPER));
        fast = withoutChance(pose.dump(FAST_DUMPER));
        again = withoutChance(pose.dump(STOCK_DUMPER));
        return stock.size() == fast.size() && fast.size() == again.size();
    };
    ASSERT_TRUE(eventually(have_one_length));
    ASSERT_EQ(std::string::npos, firstDifference(stock, again));
    EXPECT_EQ(std::string::npos, firstDifference(stock, fast));
}

TEST(EqualDumpsTest, OfAProcessWithOneThread) {
    expectEqualDumps(Pose({"own", "0"}));
}

TEST(EqualDumpsTest, OfAnyNumberOfThreads) {
    for (const char* threads : {"1", "2", "7", "30", "100"})
        expectEqualDumps(Pose({"own", threads}));
}

TEST(EqualDumpsTest, OfManyModules) {
    Dl_info library = {};
    ASSERT_NE(0, dladdr(dlsym(RTLD_DEFAULT, "cos"), &library));
    const TemporaryDirectory directory;
    std::vector<std::string> arguments = {"own", "10"};
    for (int i = 0; i < 33; ++i) {
        arguments.push_back(directory / "a library with a rather long name, number " + std::to_string(i) +
                            ".so");
        std::filesystem::copy_file(library.dli_fname, arguments.back());
    }
    expectEqualDumps(Pose(arguments));
}

TEST(EqualDumpsTest, OfAStackThatIsFull) {
    const Pose pose({"full", "3"});
    expectEqualDumps(pose);
    EXPECT_THAT(pose.dump(FAST_DUMPER), HasSubstr(std::string(4096, 'g')));
}

TEST(EqualDumpsTest, OfAStackThatIsNotAllThere) {
    const Pose pose({"broken", "3"});
    expectEqualDumps(pose);
    EXPECT_THAT(pose.dump(FAST_DUMPER), HasSubstr(std::string(8192, 'b') + std::string(8192, '\0')));
}

TEST(EqualDumpsTest, OfAThreadWithoutAStack) {
    expectEqualDumps(Pose({"none", "3"}));
}

/// What a dumper leaves in a file when there is not enough of something.
struct PoorDump {
    bool is_done;
    std::string file;
};

PoorDump dumpWith(const std::vector<std::string>& limit, const Pose& pose, const char* dumper) {
    const TemporaryDirectory directory;
    PoorDump result;
    result.is_done = pose.dumpInto({directory / "dump"}, dumper, limit) == 0;
    if (std::filesystem::exists(directory / "dump"))
        result.file = readFile(directory / "dump");
    return result;
}

TEST(EqualDumpsTest, OneAfterTheOther) {
    const Pose pose({"own", "30"});
    const TemporaryDirectory directory;
    const std::vector<std::string> files = {directory / "1", directory / "2", directory / "3"};
    const auto have_one_length = [&] {
        for (const std::string& file : files)
            std::filesystem::remove(file);
        EXPECT_EQ(0, pose.dumpInto(files, FAST_DUMPER));
        return readFile(files[0]).size() == readFile(files[1]).size() &&
               readFile(files[0]).size() == readFile(files[2]).size();
    };
    ASSERT_TRUE(eventually(have_one_length));
    for (const std::string& file : files)
        EXPECT_EQ(std::string::npos,
                  firstDifference(withoutChance(readFile(files[0])), withoutChance(readFile(file))));
}

TEST(EqualDumpsTest, NeitherTouchesAFileThatIsThere) {
    const Pose pose({"own", "0"});
    const TemporaryDirectory directory;
    for (const char* dumper : {STOCK_DUMPER, FAST_DUMPER}) {
        writeFile(directory / "there", "a file");
        EXPECT_EQ(1, pose.dumpInto({directory / "there"}, dumper));
        EXPECT_EQ("a file", readFile(directory / "there"));
    }
}

TEST(EqualDumpsTest, AreReadableByTheirOwnerAlone) {
    const Pose pose({"own", "0"});
    const TemporaryDirectory directory;
    for (const char* dumper : {STOCK_DUMPER, FAST_DUMPER}) {
        const std::string file = directory / std::filesystem::path(dumper).filename();
        EXPECT_EQ(0, pose.dumpInto({file}, dumper));
        EXPECT_EQ(std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
                  std::filesystem::status(file).permissions());
    }
}

// With the fewest there is none beside the dump's own: not for the files of modules, nor for the processors.
TEST(EqualDumpsTest, WithFewDescriptors) {
    const Pose pose({"own", "3"});
    for (const char* descriptors : {"4", "5", "6"}) {
        const std::vector<std::string> limit = {"prlimit", std::string("--nofile=") + descriptors};
        const auto have_one_length = [&] {
            const PoorDump stock = dumpWith(limit, pose, STOCK_DUMPER);
            const PoorDump fast = dumpWith(limit, pose, FAST_DUMPER);
            EXPECT_EQ(stock.is_done, fast.is_done) << descriptors;
            if (stock.file.size() != fast.file.size())
                return false;
            if (stock.is_done) {
                EXPECT_EQ(std::string::npos,
                          firstDifference(withoutChance(stock.file), withoutChance(fast.file)))
                    << descriptors;
            }
            return true;
        };
        EXPECT_TRUE(eventually(have_one_length)) << descriptors;
    }
}

// Breakpad's own dump fails on a disk that is full before the names of the modules. Ours fails on these, too,
// and whenever a byte is missing.
TEST(EqualDumpsTest, OnADiskThatGetsFull) {
    const Pose pose({"own", "7"});
    const TemporaryDirectory directory;
    const size_t whole = withoutChance(pose.dump(STOCK_DUMPER)).size();
    size_t fast = 0;
    size_t failures = 0;
    for (size_t kilobytes = 4; failures + 1 >= kilobytes / 4; kilobytes += 4) {
        const SmallDisk disk(directory / "disk", "size=" + std::to_string(kilobytes) + "k");
        const bool is_stock_done = pose.dumpInto({directory / "disk/stock"}, STOCK_DUMPER) == 0;
        std::filesystem::remove(directory / "disk/stock");
        const bool is_fast_done = pose.dumpInto({directory / "disk/fast"}, FAST_DUMPER) == 0;
        EXPECT_TRUE(is_stock_done || !is_fast_done) << kilobytes;
        if (!is_fast_done)
            ++failures;
        else
            fast = readFile(directory / "disk/fast").size();
    }
    EXPECT_NEAR(static_cast<double>(whole), static_cast<double>(fast),
                64); // numbers in texts get more digits
    EXPECT_EQ((fast - 1) / 4096, failures);
}

} // namespace

} // namespace vantor::test
