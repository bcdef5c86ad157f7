// Annotations out of the memory of a real process.

#include "crash/custom_data.h"

#include "crash/crash_handler.h"
#include "crash/globals.h"
#include "tests/support/captured_standard_error.h"
#include "tests/support/fake_http_uploader.h"
#include "tests/support/temporary_directory.h"

#include "client/linux/crash_generation/client_info.h"

#include <csignal>
#include <cstring>
#include <gmock/gmock.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;
using testing::SizeIs;
using vantor::crash::CustomDataDescriptor;
using vantor::crash::CustomDataEntry;

/// A child that does nothing: a copy of this process, with the same memory at the same addresses.
class Client {
public:
    Client() : m_pid(fork()) {
        while (m_pid == 0)
            pause();
    }
    ~Client() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int pid() const { return m_pid; }

    /// True when the client runs: nobody traces it, and it is not stopped.
    bool isFree() const {
        const std::string status = vantor::test::readFile("/proc/" + std::to_string(m_pid) + "/status");
        return status.find("TracerPid:\t0\n") != std::string::npos &&
               status.find("State:\tt") == std::string::npos;
    }

private:
    const pid_t m_pid;
};

CustomDataEntry entry(const std::string& name, const std::string& value) {
    CustomDataEntry entry;
    std::memset(&entry, 0xAA, sizeof(entry)); // what follows the NULs is never looked at
    std::memcpy(entry.name, name.c_str(), std::min(name.size() + 1, sizeof(entry.name)));
    std::memcpy(entry.value, value.c_str(), std::min(value.size() + 1, sizeof(entry.value)));
    return entry;
}

/// What the reader makes of the descriptor and the records as they stand in the client's memory.
class CustomDataTest : public testing::Test {
protected:
    std::vector<CustomDataEntry> read(const CustomDataDescriptor& descriptor) {
        const Client client;
        std::vector<CustomDataEntry> records;
        readCustomData(reinterpret_cast<unsigned long>(&descriptor), client.pid(), &records);
        EXPECT_TRUE(client.isFree());
        return records;
    }

    /// The parameters that a dump of a client with these records is uploaded with, but for "time".
    std::map<std::string, std::string> paramsOf(const std::vector<CustomDataEntry>& records) {
        const CustomDataDescriptor descriptor = {static_cast<uint32_t>(records.size()), 0xFFFFFFFF,
                                                 reinterpret_cast<uint64_t>(records.data())};
        return paramsAt(reinterpret_cast<uint64_t>(&descriptor));
    }

    std::map<std::string, std::string> paramsAt(uint64_t address) {
        const Client client;
        const google_breakpad::ClientInfo info(client.pid(), nullptr);
        vantor::test::writeFile(m_dump, "MDMP");
        g_custom_data_addr = address;
        minidumpCallback(nullptr, &info, &m_dump);
        EXPECT_TRUE(client.isFree());

        const auto written =
            vantor::test::readFile(m_directory / "01234567-89ab-cdef-01234567-89abcdef.params");
        std::map<std::string, std::string> params = m_http.uploads.back().params;
        params.erase("guid");
        params.erase("time");
        return params;
    }

    vantor::test::TemporaryDirectory m_directory;
    const std::string m_dump = m_directory / "01234567-89ab-cdef-01234567-89abcdef.dmp";
    vantor::test::FakeHttpUploader& m_http = vantor::test::FakeHttpUploader::instance() =
        vantor::test::FakeHttpUploader();
    vantor::crash::CrashHandler m_handler = vantor::crash::CrashHandler(m_directory.path(), false, {});
    vantor::test::CapturedStandardError m_standard_error;

    CustomDataTest() { g_crash_handler = &m_handler; }
    ~CustomDataTest() override { g_crash_handler = nullptr; }
};

TEST_F(CustomDataTest, RecordsAreAppendedInTheirOrder) {
    const CustomDataEntry entries[] = {entry("b", "2"), entry("a", "1")};
    const CustomDataDescriptor descriptor = {2, 0, reinterpret_cast<uint64_t>(entries)};
    const auto records = read(descriptor);
    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(std::memcmp(records.data(), entries, sizeof(entries)), 0);
}

TEST_F(CustomDataTest, WhatIsThereAlreadyStaysInFront) {
    const CustomDataEntry entries[] = {entry("b", "2"), entry("a", "1")};
    const CustomDataDescriptor descriptor = {2, 0, reinterpret_cast<uint64_t>(entries)};
    const Client client;
    std::vector<CustomDataEntry> records = {entry("from", "before")};
    readCustomData(reinterpret_cast<unsigned long>(&descriptor), client.pid(), &records);
    ASSERT_THAT(records, SizeIs(3));
    EXPECT_STREQ(records[0].name, "from");
    EXPECT_STREQ(records[1].name, "b");
    EXPECT_STREQ(records[2].name, "a");
}

TEST_F(CustomDataTest, NoRecordsIsAMessage) {
    const CustomDataEntry entries[] = {entry("a", "1")};
    EXPECT_THAT(read({0, 0, reinterpret_cast<uint64_t>(entries)}), IsEmpty());
    EXPECT_EQ(m_standard_error.text(), "Could not read custom data from process!\n");
}

TEST_F(CustomDataTest, NoAddressOfRecordsIsAMessage) {
    EXPECT_THAT(read({3, 0, 0}), IsEmpty());
    EXPECT_EQ(m_standard_error.text(), "Could not read custom data from process!\n");
}

TEST_F(CustomDataTest, ADescriptorAtTheTopOfTheAddressSpaceIsNotRead) {
    const Client client;
    std::vector<CustomDataEntry> records;
    for (const unsigned long address : {0xFFFFFFFFFFFFFFF0UL, 0xFFFFFFFFFFFFFFFFUL}) {
        const size_t told = m_standard_error.text().size();
        readCustomData(address, client.pid(), &records);
        EXPECT_THAT(records, IsEmpty());
        EXPECT_EQ(m_standard_error.text().substr(told), "Could not read custom data from process!\n");
    }
    EXPECT_TRUE(client.isFree());
}

TEST_F(CustomDataTest, TheReservedBytesAreIgnored) {
    const CustomDataEntry entries[] = {entry("a", "1")};
    const CustomDataDescriptor descriptor = {1, 0xFFFFFFFF, reinterpret_cast<uint64_t>(entries)};
    EXPECT_THAT(read(descriptor), SizeIs(1));
}

TEST_F(CustomDataTest, WithoutAnAddressTheClientIsLeftAlone) {
    EXPECT_THAT(paramsAt(0), IsEmpty());
    EXPECT_THAT(m_standard_error.text(), testing::Not(testing::HasSubstr("custom data")));
}

TEST_F(CustomDataTest, AnEmptyDescriptorIsAReportWithoutAnnotations) {
    const CustomDataDescriptor descriptor = {0, 0, 0};
    EXPECT_THAT(paramsAt(reinterpret_cast<uint64_t>(&descriptor)), IsEmpty());
    EXPECT_THAT(m_standard_error.text(),
                testing::StartsWith("Could not read custom data from process!\nCrash! "));
}

TEST_F(CustomDataTest, RecordsBecomeParameters) {
    EXPECT_THAT(paramsOf({entry("b", "2"), entry("a", "1\t\xff end")}),
                ElementsAre(Pair("a", "1\t\xff end"), Pair("b", "2")));
}

TEST_F(CustomDataTest, TheLaterOfTwoRecordsWins) {
    EXPECT_THAT(paramsOf({entry("a", "1"), entry("a", "2")}), ElementsAre(Pair("a", "2")));
}

TEST_F(CustomDataTest, TheLongestTextsPass) {
    const std::string name(63, 'n');
    const std::string value(255, 'v');
    EXPECT_THAT(paramsOf({entry(name, value)}), ElementsAre(Pair(name, value)));
}

TEST_F(CustomDataTest, ANameWithoutANulRunsOnIntoItsValue) {
    const std::string name(64, 'n');
    EXPECT_THAT(paramsOf({entry(name, "value")}), ElementsAre(Pair(name + "value", "value")));
}

TEST_F(CustomDataTest, AValueWithoutANulRunsOnIntoTheNextRecord) {
    const std::string value(256, 'v');
    EXPECT_THAT(paramsOf({entry("a", value), entry("b", "2")}),
                ElementsAre(Pair("a", value + "b"), Pair("b", "2")));
}

TEST_F(CustomDataTest, TheLastValueWithoutANulEndsWithTheRecords) {
    const std::string value(256, 'v');
    (void)mallopt(M_PERTURB, 1); // behind three records there is room for a fourth: without zeros
    const auto params = paramsOf({entry("a", "1"), entry("b", "2"), entry("c", value)});
    (void)mallopt(M_PERTURB, 0);
    EXPECT_THAT(params, ElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("c", value)));
}

/// Three pages, of which the last cannot be read.
class Pages {
public:
    Pages() {
        EXPECT_NE(m_memory, MAP_FAILED);
        EXPECT_EQ(mprotect(static_cast<char*>(m_memory) + 2 * kSize, kSize, PROT_NONE), 0);
        EXPECT_EQ(munmap(static_cast<char*>(m_memory) + 2 * kSize, kSize), 0);
    }
    ~Pages() { munmap(m_memory, 2 * kSize); }
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;

    char* end() const { return static_cast<char*>(m_memory) + 2 * kSize; }

private:
    static constexpr size_t kSize = 4096;
    void* const m_memory =
        mmap(nullptr, 3 * kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
};

TEST_F(CustomDataTest, WordsThatCannotBeReadAreAllOnes) {
    const Pages pages;
    const CustomDataEntry full = entry("name", std::string(255, 'v'));
    // 100 bytes of the record can be read; the word with byte 100 straddles the end and is lost as a whole.
    std::memcpy(pages.end() - 100, &full, 100);
    const CustomDataDescriptor descriptor = {1, 0, reinterpret_cast<uint64_t>(pages.end() - 100)};
    const auto records = read(descriptor);
    ASSERT_THAT(records, SizeIs(1));
    const std::string bytes(reinterpret_cast<const char*>(records.data()), sizeof(CustomDataEntry));
    EXPECT_EQ(bytes.substr(0, 96), std::string(reinterpret_cast<const char*>(&full), 96));
    EXPECT_EQ(bytes.substr(96), std::string(320 - 96, '\xff'));
}

TEST_F(CustomDataTest, ReadingStoresWholeWords) {
    const uint64_t source[] = {0x1111111111111111, 0x2222222222222222};
    const Client client;
    uint64_t target[] = {0, 0};
    attachToProcess(client.pid());
    readDataFromProcess(client.pid(), reinterpret_cast<unsigned long>(source), target, 9);
    EXPECT_EQ(target[0], source[0]);
    EXPECT_EQ(target[1], source[1]);

    target[0] = 0;
    readDataFromProcess(client.pid(), reinterpret_cast<unsigned long>(source), target, 0);
    EXPECT_EQ(target[0], 0U);
    detachFromProcess(client.pid());
    EXPECT_TRUE(client.isFree());
}

TEST_F(CustomDataTest, TheClientIsStoppedWhileItIsAttached) {
    const Client client;
    attachToProcess(client.pid());
    EXPECT_FALSE(client.isFree());
    detachFromProcess(client.pid());
    EXPECT_TRUE(client.isFree());
}

} // namespace
