#include "collector/pages.h"
#include "tests/support/child_process.h"
#include "tests/support/collector_process.h"
#include "tests/support/covered_file.h"
#include "tests/support/crash_server_test.h"
#include "tests/support/eventually.h"
#include "tests/support/programs.h"
#include "tests/support/small_disk.h"
#include "tests/support/tls_client.h"

#include <csignal>
#include <filesystem>
#include <sstream>

namespace vantor::test {

namespace {

using collector::stackPathOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// A collector, and reports of tests' own making.
class CollectorTest : public testing::Test {
protected:
    std::unique_ptr<CollectorProcess> startCollector(const std::vector<std::string>& options = {}) const {
        return std::make_unique<CollectorProcess>(m_authority, m_directory.path(), options);
    }

    /// Everything below the data directory but the directories.
    std::vector<std::string> storedFiles() const {
        std::vector<std::string> names;
        const std::string data = m_directory / "collector";
        std::error_code error;
        for (std::filesystem::recursive_directory_iterator entry(data, error), end; entry != end;
             entry.increment(error)) {
            if (std::error_code gone; entry->is_regular_file(gone))
                names.push_back(entry->path().string().substr(data.size() + 1));
        }
        if (error)
            names.emplace_back("a directory that goes just now");
        std::sort(names.begin(), names.end());
        return names;
    }

    /// Waits until these are there and no others: a request's temporary file goes just after its answer.
    void expectFiles(const std::vector<std::string>& names) const {
        EXPECT_TRUE(eventually([&] { return storedFiles() == names; }))
            << testing::PrintToString(storedFiles());
    }

    TemporaryDirectory m_directory;
    const CertificateAuthority m_authority{m_directory.path()};
};

/// Another report's name.
std::string nameLike(std::string name, char first) {
    name[0] = first;
    return name;
}

/// The answer to a report of one dump, sent by curl.
HttpAnswer post(const CollectorProcess& collector, const std::vector<std::string>& parts) {
    std::vector<std::string> arguments;
    for (const std::string& part : parts) {
        arguments.emplace_back(part.find("=@") != std::string::npos ? "--form" : "--form-string");
        arguments.push_back(part);
    }
    return collector.ask("/api/1/upload_crash/", arguments);
}

TEST_F(CollectorTest, StoresWhatCurlSends) {
    const auto collector = startCollector();
    const std::string dump = m_directory / (kStem + ".dmp");
    writeFile(dump, smallMinidump());
    const HttpAnswer answer = post(*collector, {"product=sample", "note=a;b \"c\"", "crash=@" + dump});
    EXPECT_EQ(200, answer.status);
    EXPECT_EQ("Stored " + kStem + ".\n", answer.body);

    const std::string place = m_directory / ("collector/reports/0a/1b/" + kStem);
    EXPECT_EQ("note\na;b \"c\"\nproduct\nsample\n", readFile(place + ".params"));
    EXPECT_EQ(smallMinidump(), readFile(place + ".dmp"));
    EXPECT_THAT(collector->stackTrace(kStem), HasSubstr("product: sample"));
    EXPECT_EQ(0, collector->end(SIGTERM));
}

TEST_F(CollectorTest, SaysWhatIsWrongWithARequest) {
    const auto collector = startCollector();
    EXPECT_EQ(404, collector->ask("/elsewhere").status);
    EXPECT_EQ(404, collector->ask(stackPathOf(kStem)).status);
    EXPECT_EQ(400, collector->ask("/api/1/upload_crash/", {"--data", "a=b"}).status);
    const HttpAnswer get = collector->ask("/api/1/upload_crash/");
    EXPECT_EQ(405, get.status);
    EXPECT_THAT(get.header, HasSubstr("\r\nAllow: POST\r\n"));

    EXPECT_EQ(200, collector->sendReport({}, kStem, smallMinidump()));
    EXPECT_EQ(404, collector->ask("/diagnostics/crashes/" + kStem + ".stack").status);
    EXPECT_EQ(404, collector->ask("/diagnostics/crashes/0a/1c/" + kStem + ".stack").status);
    EXPECT_EQ(
        404, collector->ask("/diagnostics/crashes/0a/1b/../1b/" + kStem + ".stack", {"--path-as-is"}).status);
}

TEST_F(CollectorTest, NothingButAReportsNameBecomesAPath) {
    const auto collector = startCollector();
    for (const std::string& name : {std::string("../../") + kStem, "/" + kStem, kStem + "0", kStem.substr(1),
                                    "g" + kStem.substr(1), std::string("%2e%2e%2f") + kStem, std::string()}) {
        const HttpAnswer answer =
            collector->send(reportRequest(reportForm({}, name + ".dmp", smallMinidump())));
        EXPECT_EQ(400, answer.status) << name;
        EXPECT_EQ(answer.body.size() - 1, answer.body.find('\n')) << "one line: " << answer.body;
    }
    expectFiles({});
}

TEST_F(CollectorTest, AReportThatComesTwiceIsStoredOnceWithTheFullerParameters) {
    const auto collector = startCollector();
    EXPECT_EQ(200, collector->sendReport({{"a", "1"}, {"b", "2"}}, kStem, smallMinidump()));
    EXPECT_EQ(200, collector->sendReport({{"a", "3"}}, kStem, smallMinidump(200)));
    const std::string place = m_directory / ("collector/reports/0a/1b/" + kStem);
    EXPECT_EQ("a\n1\nb\n2\n", readFile(place + ".params"));
    EXPECT_EQ(smallMinidump(), readFile(place + ".dmp"));

    EXPECT_EQ(200, collector->sendReport({{"a", "3"}, {"b", "4"}, {"c", "5"}}, kStem, smallMinidump(200)));
    EXPECT_EQ("a\n3\nb\n4\nc\n5\n", readFile(place + ".params"));
    EXPECT_EQ(smallMinidump(), readFile(place + ".dmp"));
    EXPECT_THAT(collector->stackTrace(kStem), HasSubstr("c: 5"));
}

TEST_F(CollectorTest, AFormThatIsCutAnywhereLeavesNothing) {
    const auto collector = startCollector();
    const std::string form = reportForm({{"a", "1"}}, kStem + ".dmp", smallMinidump(72));
    const size_t whole =
        form.size() - std::string("\r\n").size(); // what follows the last boundary does not matter
    for (size_t length = 0; length < whole; ++length)
        EXPECT_EQ(400, collector->send(reportRequest(form.substr(0, length))).status) << length;
    expectFiles({});
    EXPECT_EQ(200, collector->send(reportRequest(form.substr(0, whole))).status);
}

TEST_F(CollectorTest, AWrongContentLengthLeavesNothing) {
    const auto collector = startCollector();
    const std::string form = reportForm({}, kStem + ".dmp", smallMinidump());
    const std::string head = "POST /api/1/upload_crash/ HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
                             "Content-Type: multipart/form-data; boundary=b\r\nContent-Length: ";
    EXPECT_EQ(400, collector->send(head + std::to_string(form.size() - 10) + "\r\n\r\n" + form).status);
    EXPECT_EQ(400, collector->send(head + "-1\r\n\r\n" + form).status);
    EXPECT_EQ(400, collector->send(head + "x\r\n\r\n" + form).status);
    expectFiles({});
}

/// A bound, and a report that reaches it, or exceeds it by one.
struct Bound {
    const char* option;
    uint32_t most;
    std::string (*form)(uint32_t);
};

std::string formOfBytes(uint32_t size) {
    const std::string form = reportForm({}, kStem + ".dmp", smallMinidump());
    return form + std::string(size - form.size(), 'e'); // behind the last boundary
}

const Bound kBounds[] = {
    {"--max-body", 1000, formOfBytes},
    {"--max-dump", 300, [](uint32_t size) { return reportForm({}, kStem + ".dmp", smallMinidump(size)); }},
    {"--max-name", 30,
     [](uint32_t size) {
         return reportForm({{std::string(size, 'n'), "1"}}, kStem + ".dmp", smallMinidump());
     }},
    {"--max-value", 30,
     [](uint32_t size) {
         return reportForm({{"a", std::string(size, 'v')}}, kStem + ".dmp", smallMinidump());
     }},
    {"--max-field-bytes", 30,
     [](uint32_t size) {
         return reportForm({{"abcde", std::string(size - 5, 'v')}}, kStem + ".dmp", smallMinidump());
     }},
    {"--max-fields", 5,
     [](uint32_t size) {
         std::map<std::string, std::string> params;
         for (size_t i = 0; i < size; ++i)
             params[std::to_string(i)] = "1";
         return reportForm(params, kStem + ".dmp", smallMinidump());
     }},
};

class CollectorBoundTest : public CollectorTest, public testing::WithParamInterface<Bound> {};

TEST_P(CollectorBoundTest, IsAllowedAndNotExceeded) {
    const Bound& bound = GetParam();
    const auto collector = startCollector({"--max-dump", "900", bound.option, std::to_string(bound.most)});
    const HttpAnswer refused = collector->send(reportRequest(bound.form(bound.most + 1)));
    EXPECT_EQ(413, refused.status);
    EXPECT_EQ(refused.body.size() - 1, refused.body.find('\n')) << "one line: " << refused.body;
    expectFiles({});
    EXPECT_EQ(200, collector->send(reportRequest(bound.form(bound.most))).status);
}

std::string nameOfBound(const testing::TestParamInfo<Bound>& bound) {
    std::string name = bound.param.option;
    std::erase(name, '-');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Every, CollectorBoundTest, testing::ValuesIn(kBounds), nameOfBound);

/// A body that says piece by piece how long it is.
std::string chunkedRequest(const std::string& form) {
    std::ostringstream request;
    request << "POST /api/1/upload_crash/ HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
               "Content-Type: multipart/form-data; boundary=b\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (size_t at = 0; at < form.size(); at += 100)
        request << std::hex << std::min<size_t>(100, form.size() - at) << "\r\n"
                << form.substr(at, 100) << "\r\n";
    request << "0\r\n\r\n";
    return request.str();
}

TEST_F(CollectorTest, ABodyOfUnknownLengthIsBoundedAsWell) {
    const auto collector = startCollector({"--max-body", "1000", "--max-dump", "900"});
    const std::string form = reportForm({}, kStem + ".dmp", smallMinidump());
    EXPECT_EQ(413, collector->send(chunkedRequest(form + std::string(1001 - form.size(), 'e'))).status);
    EXPECT_EQ(0, collector->send(chunkedRequest(form + std::string(100'000, 'e'))).status); // cut off
    expectFiles({});
    EXPECT_EQ(200, collector->send(chunkedRequest(form + std::string(1000 - form.size(), 'e'))).status);
}

TEST_F(CollectorTest, SymbolFilesAreBounded) {
    const std::string symbols = "MODULE Linux x86_64 0123456789ABCDEF0123456789ABCDEF0 program\n";
    const auto collector = startCollector({"--max-symbols", std::to_string(symbols.size())});
    const std::string key = "?key=key%20of%20the%20tests";
    const std::string file = m_directory / "program.sym";
    const auto postForm = [&] {
        return collector->ask("/api/1/upload_symbols/" + key, {"--form", "symbol_file=@" + file}).status;
    };
    const std::string created = collector->ask("/v1/uploads:create" + key, {"--data", ""}).body;
    const std::string path = "/v1/uploads/" + created.substr(created.rfind("\"}") - 32, 32);
    const auto put = [&] { return collector->ask(path, {"--upload-file", file}).status; };

    writeFile(file, symbols + "\n");
    EXPECT_EQ(413, postForm());
    EXPECT_EQ(413, put());
    EXPECT_EQ(404, collector->ask(path + ":complete" + key, {"--data", "{}"}).status);
    expectFiles({});

    writeFile(file, symbols);
    EXPECT_EQ(200, put());
    EXPECT_EQ("{\"result\": \"OK\"}\n", collector->ask(path + ":complete" + key, {"--data", "{}"}).body);
    EXPECT_EQ(200, postForm());
    expectFiles({"symbols/program/0123456789ABCDEF0123456789ABCDEF0/program.sym"});
}

TEST_F(CollectorTest, ABodyThatIsTooLargeIsToldSo) {
    const auto collector = startCollector({"--max-body", "1000", "--max-dump", "900"});
    // Far more than a connection holds: the sender gets to the answer only if its form is read over.
    const HttpAnswer answer =
        collector->send(reportRequest(reportForm({}, kStem + ".dmp", smallMinidump(20'000'000))));
    EXPECT_EQ(413, answer.status);
    EXPECT_EQ("The form is larger than 1000 bytes.\n", answer.body);
    EXPECT_THAT(collector->words(),
                HasSubstr("\nRefused a report from 127.0.0.1: The form is larger than 1000 bytes.\n"));
}

TEST_F(CollectorTest, AFullDiskIsToldSoAndLeavesNothing) {
    std::filesystem::create_directory(m_directory / "collector");
    const SmallDisk disk(m_directory / "collector", "size=256k");
    const auto collector = startCollector({"--keep-free", "1"});
    const HttpAnswer full =
        collector->send(reportRequest(reportForm({}, kStem + ".dmp", smallMinidump(300'000))));
    EXPECT_EQ(503, full.status);
    EXPECT_THAT(full.header, HasSubstr("\r\nRetry-After: 60\r\n"));
    expectFiles({});
    EXPECT_EQ(200, collector->sendReport({}, kStem, smallMinidump()));
}

TEST_F(CollectorTest, SomeOfTheDiskIsLeftToOthers) {
    const auto collector = startCollector({"--keep-free", "1099511627776"}); // more than there is
    EXPECT_EQ(503, collector->sendReport({}, kStem, smallMinidump()));
}

TEST_F(CollectorTest, AnAddressGetsItsShareOfTheConnections) {
    const auto collector = startCollector({"--connections-per-address", "3"});
    std::vector<std::unique_ptr<TlsClient>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<TlsClient>(8443, m_authority.certificateFile()));
        EXPECT_TRUE(clients.back()->handshake());
    }
    EXPECT_FALSE(TlsClient(8443, m_authority.certificateFile()).handshake());
    clients.clear();
    EXPECT_TRUE(eventually([&] { return collector->sendReport({}, kStem, smallMinidump()) == 200; }));
}

TEST_F(CollectorTest, ASenderThatGoesInTheMiddleLeavesNothing) {
    const auto collector = startCollector();
    const std::string request = reportRequest(reportForm({}, kStem + ".dmp", smallMinidump(50'000)));
    {
        TlsClient client(8443, m_authority.certificateFile());
        ASSERT_TRUE(client.handshake());
        ASSERT_TRUE(client.send(request.substr(0, 40'000)));
        EXPECT_TRUE(eventually([&] { return !storedFiles().empty(); })); // on its way
    }
    expectFiles({});
}

TEST_F(CollectorTest, AReportThatComesAgainIsNotWalkedAgain) {
    const auto collector = startCollector();
    EXPECT_EQ(200, collector->sendReport({}, kStem, smallMinidump()));
    EXPECT_NE("", collector->stackTrace(kStem));
    EXPECT_EQ(200, collector->sendReport({}, kStem, smallMinidump()));
    EXPECT_THAT(collector->words(), testing::EndsWith("/\nStored " + kStem + "\n")); // and not twice
}

TEST_F(CollectorTest, AWalkThatCouldNotBeginIsTriedAgain) {
    const auto collector = startCollector();
    const std::string other = nameLike(kStem, '1');
    {
        const CoveredFile no_program(std::filesystem::path(kCrashCollector).parent_path() / "crash_walker",
                                     "/dev/null");
        EXPECT_EQ(200, collector->sendReport({}, kStem, smallMinidump()));
        EXPECT_EQ(202, collector->ask(stackPathOf(kStem)).status);
    }
    EXPECT_EQ(200, collector->sendReport({}, other, smallMinidump())); // whose arrival is an occasion
    EXPECT_THAT(collector->stackTrace(other), HasSubstr("Walk failed: "));
    int count = 0;
    EXPECT_TRUE(eventually([&] { // one that came before the walk was put off was none
        const std::string further = std::to_string(20'000'000 + count++) + kStem.substr(8);
        EXPECT_EQ(200, collector->sendReport({}, further, smallMinidump()));
        return collector->ask(stackPathOf(kStem)).status == 200;
    }));
    EXPECT_THAT(collector->stackTrace(kStem), HasSubstr("Walk failed: the "));
}

TEST_F(CollectorTest, ListsReportsSafely) {
    const auto collector = startCollector();
    EXPECT_THAT(collector->ask("/").body, HasSubstr("None has arrived yet"));
    EXPECT_EQ(200, collector->sendReport({{"<script>", "<b>"}}, kStem, smallMinidump()));
    EXPECT_NE("", collector->stackTrace(kStem));
    const HttpAnswer list = collector->ask("/");
    EXPECT_THAT(list.header, HasSubstr("\r\nContent-Type: text/html; charset=utf-8\r\n"));
    EXPECT_THAT(list.body, HasSubstr("<a href=\"" + stackPathOf(kStem) + "\">" + kStem + "</a>"));
    EXPECT_THAT(list.body, HasSubstr("Walk failed: "));
    EXPECT_THAT(list.body, Not(HasSubstr("<script>")));
    EXPECT_THAT(collector->ask(stackPathOf(kStem)).header,
                HasSubstr("\r\nContent-Type: text/plain; charset=utf-8\r\n"));
}

TEST_F(CollectorTest, WalksAtItsNextStartWhatItHadNot) {
    auto collector = startCollector();
    EXPECT_EQ(200, collector->sendReport({}, kStem, smallMinidump()));
    EXPECT_NE("", collector->stackTrace(kStem));
    EXPECT_EQ(0, collector->end(SIGTERM));
    std::filesystem::remove(m_directory / ("collector/reports/0a/1b/" + kStem + ".stack"));

    collector = startCollector();
    EXPECT_THAT(collector->stackTrace(kStem), HasSubstr("Walk failed: "));
}

/// A start with files that the test chooses.
class CollectorStartTest : public CollectorTest {
protected:
    static std::string walker() {
        return std::filesystem::path(kCrashCollector).parent_path() / "crash_walker";
    }
    /// What it says, on whichever output, and how it ends.
    static std::string complaintWith(const std::string& certificate, const std::string& key,
                                     const std::string& symbol_key, const std::string& data) {
        ChildProcess collector({"sh", "-c", R"(exec "$@" 2>&1)", "sh", kCrashCollector, "--listen",
                                "127.0.0.1:0", "--certificate", certificate, "--key", key, "--symbol-key",
                                symbol_key, "--data", data});
        const std::string words = collector.readToEnd();
        EXPECT_EQ(1, collector.wait());
        return words;
    }

    const CertificateFiles m_files = m_authority.issue("collector");
    const std::string m_symbol_key = m_directory / "symbol.key";
    const std::string m_data = m_directory / "data";
};

TEST_F(CollectorStartTest, SaysWhichFileCannotBeRead) {
    writeFile(m_symbol_key, "key\n");
    const std::string nothing = m_directory / "nothing";
    const std::string sentence =
        "crash_collector: " + nothing + " cannot be read: No such file or directory\n";
    EXPECT_EQ(sentence, complaintWith(nothing, m_files.key, m_symbol_key, m_data));
    EXPECT_EQ(sentence, complaintWith(m_files.certificate, nothing, m_symbol_key, m_data));
    EXPECT_EQ(sentence, complaintWith(m_files.certificate, m_files.key, nothing, m_data));
    EXPECT_EQ("crash_collector: " + m_directory.path() + " cannot be read: it is empty, or no file\n",
              complaintWith(m_files.certificate, m_files.key, m_directory.path(), m_data));
}

TEST_F(CollectorStartTest, WantsAKeyInTheFirstLine) {
    writeFile(m_symbol_key, "\nkey\n");
    EXPECT_EQ("crash_collector: " + m_symbol_key + " does not begin with a line that is a key\n",
              complaintWith(m_files.certificate, m_files.key, m_symbol_key, m_data));
}

TEST_F(CollectorStartTest, SaysThatItsDirectoryCannotBeUsed) {
    writeFile(m_symbol_key, "key\n");
    writeFile(m_data, "a file");
    EXPECT_EQ("crash_collector: The data directory " + m_data + " cannot be used: File exists.\n",
              complaintWith(m_files.certificate, m_files.key, m_symbol_key, m_data));
    EXPECT_EQ("a file", readFile(m_data));
}

TEST_F(CollectorStartTest, SaysThatItsWalkerIsMissing) {
    writeFile(m_symbol_key, "key\n");
    const CoveredFile no_program(walker(), "/dev/null");
    EXPECT_EQ("crash_collector: " + walker() +
                  " cannot be run: Permission denied; it belongs beside crash_collector\n",
              complaintWith(m_files.certificate, m_files.key, m_symbol_key, m_data));
}

TEST_F(CollectorStartTest, ItsWalkerIsNotForPeople) {
    ChildProcess person({walker(), "a.dmp"}, ChildProcess::Capture::OutputAndErrors);
    EXPECT_EQ("crash_walker is started by crash_collector alone.\n", person.readToEnd());
    EXPECT_EQ(2, person.wait());
}

TEST_F(CollectorStartTest, ListensOnAnAddressOfVersion6) {
    ChildProcess collector({kCrashCollector, "--listen", "[::1]:8443", "--certificate", m_files.certificate,
                            "--key", m_files.key, "--data", m_data});
    EXPECT_EQ("Listening on https://[::1]:8443/", collector.readLine());
    ChildProcess curl({"curl", "--silent", "--cacert", m_authority.certificateFile(), "--resolve",
                       "localhost:8443:[::1]", "--form", "symbol_file=@" + m_files.key,
                       "https://localhost:8443/api/1/upload_symbols/?key="});
    EXPECT_EQ("This collector takes no symbols: it was started without --symbol-key.\n", curl.readToEnd());
    EXPECT_EQ(0, curl.wait());
    collector.sendSignal(SIGTERM);
    EXPECT_EQ(0, collector.wait());
}

/// The whole road: a crash, its server, the collector.
class CollectorRoadTest : public CrashServerTest {
protected:
    CollectorRoadTest() { closeCollector(); }

    /// The name of a report of the test application's segmentation fault.
    std::string crashOnce() {
        const auto application = startGuarded();
        EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
        awaitUploads(1);
        endQuietly(*application);
        const std::string text = words();
        EXPECT_THAT(text,
                    ContainsRegex("Stack trace: https://localhost:8443/diagnostics/crashes/.*\\.stack\n"));
        return text.substr(text.find(".stack") - kStem.size(), kStem.size());
    }

    /// The file of the application's symbols.
    std::string makeSymbols() {
        ChildProcess dumper({kDumpSyms, kTestApplication});
        std::string path = directory() + "/test_application.sym";
        writeFile(path, dumper.readToEnd());
        EXPECT_EQ(0, dumper.wait());
        return path;
    }

    /// What sym_upload says of its upload. It trusts the authorities of the machine and no others.
    std::string upload(std::vector<std::string> arguments) const {
        const CoveredFile trust("/etc/ssl/certs/ca-certificates.crt", authority().certificateFile());
        arguments.insert(arguments.begin(), kSymUpload);
        ChildProcess sender(arguments, ChildProcess::Capture::OutputAndErrors);
        std::string text = sender.readToEnd();
        EXPECT_EQ(0, sender.wait());
        return text;
    }

    const std::string kTop = "Crashed in: vantor::test::crashBySegmentationFault() (crashes.cpp:";
};

TEST_F(CollectorRoadTest, ThePrintedLinkLeadsToTheStackTrace) {
    const CollectorProcess collector(authority(), directory());
    EXPECT_THAT(upload({"-p", "sym-upload-v2", "-k", "key%20of%20the%20tests", makeSymbols(),
                        "https://localhost:8443"}),
                HasSubstr("Successfully sent the symbol file."));
    const std::string trace = collector.stackTrace(crashOnce());
    EXPECT_THAT(trace, HasSubstr("Crash reason: SIGSEGV /SEGV_MAPERR\n"));
    EXPECT_THAT(trace, HasSubstr(kTop));
    EXPECT_THAT(crashFiles(), IsEmpty());
}

TEST_F(CollectorRoadTest, SymbolsThatArriveLaterAreUsed) {
    const CollectorProcess collector(authority(), directory());
    const std::string name = crashOnce();
    EXPECT_THAT(collector.stackTrace(name), HasSubstr("\nNo symbols: test_application "));

    EXPECT_THAT(
        upload({makeSymbols(), "https://localhost:8443/api/1/upload_symbols/?key=key%20of%20the%20tests"}),
        HasSubstr("Successfully sent the symbol file."));
    EXPECT_TRUE(eventually([&] { return collector.stackTrace(name).find(kTop) != std::string::npos; }))
        << collector.stackTrace(name);
    EXPECT_THAT(upload({"-p", "sym-upload-v2", "-k", "key%20of%20the%20tests", makeSymbols(),
                        "https://localhost:8443"}),
                HasSubstr("Symbol file already exists"));
}

TEST_F(CollectorRoadTest, SymbolsAreTakenWithTheKeyAlone) {
    const CollectorProcess collector(authority(), directory());
    EXPECT_EQ(403,
              collector.ask("/api/1/upload_symbols/", {"--form", "symbol_file=@" + makeSymbols()}).status);
    EXPECT_EQ(403, collector.ask("/v1/uploads:create?key=key", {"--data", ""}).status);
    EXPECT_EQ(403, collector.ask("/v1/symbols/a/0:checkStatus").status);
    EXPECT_EQ(404, collector.ask("/v1/uploads/0123", {"--upload-file", makeSymbols()}).status);
    EXPECT_FALSE(exists(collector.dataDirectory() + "/symbols"));
}

} // namespace

} // namespace vantor::test
