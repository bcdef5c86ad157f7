#include "collector/stack_trace.h"

#include "tests/support/real_dump.h"
#include "tests/support/temporary_directory.h"

#include "google_breakpad/common/minidump_format.h"

#include <cstring>
#include <gmock/gmock.h>
#include <iterator>
#include <sstream>
#include <vector>

namespace vantor::collector {

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// A dump of a crash, changed in places.
class ChangedDump {
public:
    explicit ChangedDump(std::string bytes) : m_bytes(std::move(bytes)) {}

    template <typename T>
    T at(size_t offset) const {
        T value;
        memcpy(&value, m_bytes.data() + offset, sizeof(value));
        return value;
    }
    template <typename T>
    void put(size_t offset, const T& value) {
        memcpy(m_bytes.data() + offset, &value, sizeof(value));
    }
    /// Puts bytes behind the others, and returns where.
    MDLocationDescriptor add(const std::string& bytes) {
        m_bytes.resize((m_bytes.size() + 7) / 8 * 8);
        const MDLocationDescriptor place = {static_cast<uint32_t>(bytes.size()),
                                            static_cast<MDRVA>(m_bytes.size())};
        m_bytes += bytes;
        return place;
    }
    /// A text as dumps have it.
    MDRVA addName(const std::string& name) {
        std::string bytes;
        append(bytes, static_cast<uint32_t>(2 * name.size()));
        for (const char letter : name)
            append(bytes, static_cast<uint16_t>(letter));
        return add(bytes + std::string(2, '\0')).rva;
    }
    template <typename T>
    static void append(std::string& bytes, const T& value) {
        bytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
    }

    MDRawDirectory stream(uint32_t type) const { return at<MDRawDirectory>(entryOf(type)); }
    void putStream(uint32_t old_type, const MDRawDirectory& entry) { put(entryOf(old_type), entry); }
    void removeStream(uint32_t type) { putStream(type, {MD_UNUSED_STREAM, {0, 0}}); }

    size_t thread(size_t index) const {
        return stream(MD_THREAD_LIST_STREAM).location.rva + sizeof(uint32_t) + index * sizeof(MDRawThread);
    }
    size_t firstModule() const { return stream(MD_MODULE_LIST_STREAM).location.rva + sizeof(uint32_t); }

    std::string trace() const {
        const test::TemporaryDirectory directory;
        std::istringstream dump(m_bytes);
        return stackTrace(dump, SymbolStore(directory / "symbols"));
    }

private:
    size_t entryOf(uint32_t type) const {
        const auto header = at<MDRawHeader>(0);
        for (uint32_t i = 0; i < header.stream_count; ++i) {
            const size_t offset = header.stream_directory_rva + i * sizeof(MDRawDirectory);
            if (at<MDRawDirectory>(offset).stream_type == type)
                return offset;
        }
        ADD_FAILURE() << "no stream of type " << type;
        return 0;
    }

    std::string m_bytes;
};

class StackTraceOddDumpsTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const test::TemporaryDirectory directory;
        s_dump = new std::string(test::readFile(test::makeRealDump(directory.path()).path));
    }
    static void TearDownTestSuite() { delete s_dump; }

    /// Gives the crashing thread a stack of addresses, to which calls may have returned.
    void givenStackOfAddresses(size_t count) {
        const auto module = m_dump.at<MDRawModule>(m_dump.firstModule());
        std::string stack;
        for (size_t i = 0; i < count; ++i)
            ChangedDump::append(stack, uint64_t{module.base_of_image + 0x1000});
        auto thread = m_dump.at<MDRawThread>(m_dump.thread(0));
        const MDRVA exception = m_dump.stream(MD_EXCEPTION_STREAM).location.rva;
        const auto context = m_dump.at<MDRawExceptionStream>(exception).thread_context;
        thread.stack = {m_dump.at<MDRawContextAMD64>(context.rva).rsp, m_dump.add(stack)};
        m_dump.put(m_dump.thread(0), thread);
    }
    void givenNameOfProgram(const std::string& name) {
        auto module = m_dump.at<MDRawModule>(m_dump.firstModule());
        module.module_name_rva = m_dump.addName(name);
        m_dump.put(m_dump.firstModule(), module);
    }

    static std::string* s_dump;
    ChangedDump m_dump{*s_dump};
};

std::string* StackTraceOddDumpsTest::s_dump = nullptr;

TEST_F(StackTraceOddDumpsTest, OneWithoutACrash) {
    m_dump.removeStream(MD_EXCEPTION_STREAM);
    const std::string text = m_dump.trace();
    EXPECT_THAT(text, StartsWith("Crash reason: none\nCrash address: none\nCrashed in: unknown\n"
                                 "Process: dump_maker\n"));
    EXPECT_THAT(text, ContainsRegex("\n\nThread 0\n 0  "));
    EXPECT_THAT(text, Not(HasSubstr("crashed")));
}

TEST_F(StackTraceOddDumpsTest, OneWithoutModules) {
    m_dump.removeStream(MD_MODULE_LIST_STREAM);
    const std::string text = m_dump.trace();
    EXPECT_THAT(text, ContainsRegex("\nCrashed in: 0x[0-9a-f]+\nProcess: unknown\n"));
    EXPECT_THAT(text, HasSubstr("\nModules: none\n"));
}

TEST_F(StackTraceOddDumpsTest, OneWhoseCrashingThreadHasNoRegisters) {
    const MDRVA exception = m_dump.stream(MD_EXCEPTION_STREAM).location.rva;
    auto crash = m_dump.at<MDRawExceptionStream>(exception);
    crash.thread_context = {0, 0};
    m_dump.put(exception, crash);
    auto thread = m_dump.at<MDRawThread>(m_dump.thread(0));
    thread.thread_context = {0, 0};
    m_dump.put(m_dump.thread(0), thread);
    const std::string text = m_dump.trace();
    EXPECT_THAT(text, HasSubstr("\nCrashed in: unknown\n"));
    EXPECT_THAT(text, HasSubstr("\n\nThread 0 (crashed)\n  no frames\n\nThread 1\n 0  "));
}

TEST_F(StackTraceOddDumpsTest, OneThatHasItsCrashingThreadTwice) {
    auto thread = m_dump.at<MDRawThread>(m_dump.thread(1));
    thread.thread_id = m_dump.at<MDRawThread>(m_dump.thread(0)).thread_id;
    m_dump.put(m_dump.thread(1), thread);
    EXPECT_EQ("Walk failed: the dump has no list of threads that can be read.\n", m_dump.trace());
}

TEST_F(StackTraceOddDumpsTest, OneWithAnAssertion) {
    MDRawAssertionInfo assertion = {};
    std::copy_n("a > b", 5, assertion.expression);
    std::copy_n("f", 1, assertion.function);
    std::copy_n("a.cpp", 5, assertion.file);
    assertion.line = 7;
    std::string bytes;
    ChangedDump::append(bytes, assertion);
    m_dump.putStream(MD_LINUX_MAPS, {MD_ASSERTION_INFO_STREAM, m_dump.add(bytes)});
    EXPECT_THAT(m_dump.trace(), ContainsRegex("\nAssertion: [^\n]*a > b[^\n]*\nProcess: dump_maker\n"));
}

TEST_F(StackTraceOddDumpsTest, OneWithNamesOfThreads) {
    const auto other = m_dump.at<MDRawThread>(m_dump.thread(1));
    std::string names;
    ChangedDump::append(names, uint32_t{1});
    ChangedDump::append(names, uint32_t{other.thread_id});
    ChangedDump::append(names, uint64_t{m_dump.addName("goes\non")});
    m_dump.putStream(MD_LINUX_MAPS, {MD_THREAD_NAME_LIST_STREAM, m_dump.add(names)});
    const std::string text = m_dump.trace();
    EXPECT_THAT(text, HasSubstr("\n\nThread 0 (crashed)\n"));
    EXPECT_THAT(text, HasSubstr("\n\nThread 1 \"goes\\x0aon\"\n 0  "));
}

TEST_F(StackTraceOddDumpsTest, OneWithMoreFramesThanAreWalked) {
    givenStackOfAddresses(2000);
    const std::string text = m_dump.trace();
    EXPECT_THAT(text, ContainsRegex("\n1024  dump_maker \\+ 0x1000 \\(a guess\\)\n"
                                    "  and perhaps more: no more than these are walked\n"));
    EXPECT_THAT(text, Not(HasSubstr("\n1025  ")));
}

TEST_F(StackTraceOddDumpsTest, OneWithMoreFramesThanThereIsRoomFor) {
    givenStackOfAddresses(2000);
    givenNameOfProgram(std::string(1024, 'n'));
    const std::string text = m_dump.trace();
    EXPECT_THAT(text, HasSubstr("(a guess)\n  further frames are not shown\n"));
    EXPECT_THAT(text, HasSubstr("\n\nThread 1\n"));
    EXPECT_GT(size_t{1} << 20, text.size());
}

TEST_F(StackTraceOddDumpsTest, OneWithMoreThreadsThanThereIsRoomFor) {
    constexpr uint32_t kThreads = 4000;
    const auto crashed = m_dump.at<MDRawThread>(m_dump.thread(0));
    auto other = m_dump.at<MDRawThread>(m_dump.thread(1));
    std::string threads;
    ChangedDump::append(threads, kThreads);
    ChangedDump::append(threads, crashed);
    for (uint32_t i = 1; i < kThreads; ++i) {
        other.thread_id = crashed.thread_id + i;
        ChangedDump::append(threads, other);
    }
    m_dump.putStream(MD_THREAD_LIST_STREAM, {MD_THREAD_LIST_STREAM, m_dump.add(threads)});
    givenNameOfProgram(std::string(1000, 'n'));
    const std::string text = m_dump.trace();
    EXPECT_THAT(text, HasSubstr("\nOther threads are not shown: there are 4000 in all.\n\nModules:\n"));
    EXPECT_GT(size_t{1} << 20, text.size());
}

TEST_F(StackTraceOddDumpsTest, OneWithMoreModulesThanThereIsRoomFor) {
    constexpr uint32_t kModules = 1200;
    auto module = m_dump.at<MDRawModule>(m_dump.firstModule());
    module.module_name_rva = m_dump.addName(std::string(1000, 'n'));
    module.size_of_image = 0x1000;
    std::string modules;
    ChangedDump::append(modules, kModules);
    for (uint32_t i = 0; i < kModules; ++i) {
        modules.append(reinterpret_cast<const char*>(&module), MD_MODULE_SIZE);
        module.base_of_image += module.size_of_image;
    }
    m_dump.putStream(MD_MODULE_LIST_STREAM, {MD_MODULE_LIST_STREAM, m_dump.add(modules)});
    const std::string text = m_dump.trace();
    EXPECT_THAT(text, HasSubstr("\n  further modules are not shown: there are 1200 in all\n"));
    EXPECT_GT((size_t{1} << 20) + 10'000, text.size());
}

} // namespace

} // namespace vantor::collector
