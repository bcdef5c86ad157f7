#include "collector/symbol_service.h"

#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <vector>

namespace vantor::collector {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

const std::string kKey = "a secret";
const std::string kSymbols = "MODULE Linux x86_64 AB0 app\nFILE 0 app.cpp\n";
constexpr uint64_t kMostBytes = 100;

HttpRequest requestWithKey() {
    HttpRequest request;
    request.key = kKey;
    request.host = "collector:8443";
    request.content_type = "multipart/form-data; boundary=b";
    return request;
}

/// A form of files, each under the name of a field.
std::string formOf(const std::vector<std::string>& names) {
    std::string form;
    for (const std::string& name : names)
        form += "--b\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"app.sym\"\r\n\r\n" +
                kSymbols + "\r\n";
    return form + "--b--\r\n";
}

/// What the sender of a body gets to see.
HttpResponse answerTo(HttpDecision decision, const std::string& body = "") {
    if (const HttpResponse* const response = std::get_if<HttpResponse>(&decision))
        return *response;
    BodyReceiver& receiver = *std::get<std::unique_ptr<BodyReceiver>>(decision);
    EXPECT_TRUE(receiver.take(body));
    return receiver.answer();
}

class SymbolServiceTest : public testing::Test {
protected:
    SymbolService::Options options() {
        return {.key = kKey,
                .most_bytes = kMostBytes,
                .new_file = [this] { return TemporaryFile::create(m_directory.path()); },
                .on_added =
                    [this](const SymbolModule& module) { m_added.push_back(module.file + "/" + module.id); }};
    }
    void expectAnswer(unsigned int status, const std::string& body, const HttpResponse& answer) {
        EXPECT_EQ(status, answer.status);
        EXPECT_EQ(body, answer.body);
    }
    /// The number of a new upload.
    std::string open() {
        const std::string body = answerTo(m_service.create(requestWithKey())).body;
        EXPECT_THAT(body, MatchesRegex("\\{\"uploadUrl\": \"https://collector:8443/v1/uploads/[0-9a-f]+\", "
                                       "\"uploadKey\": \"[0-9a-f]+\"\\}\n"));
        return body.substr(body.rfind("\"}") - 32, 32);
    }

    test::TemporaryDirectory m_directory;
    SymbolStore m_store{m_directory / "symbols"};
    std::vector<std::string> m_added;
    SymbolService m_service{m_store, options()};
};

TEST_F(SymbolServiceTest, TakesAForm) {
    expectAnswer(200, "Added.\n", answerTo(m_service.receiveForm(requestWithKey()), formOf({"symbol_file"})));
    EXPECT_THAT(m_added, ElementsAre("app/AB0"));
    EXPECT_EQ(kSymbols, test::readFile(m_directory / "symbols/app/AB0/app.sym"));
}

TEST_F(SymbolServiceTest, TakesAFileBetweenTwoCalls) {
    const HttpRequest request = requestWithKey();
    expectAnswer(200, "{\"status\": \"MISSING\"}\n", answerTo(m_service.status(request, "app/AB0")));
    const std::string upload = open();
    expectAnswer(404, "There is no such upload, or its file has not arrived.\n",
                 answerTo(m_service.complete(request, upload)));
    expectAnswer(200, "Received.\n", answerTo(m_service.put({}, upload), kSymbols));
    EXPECT_THAT(m_added, IsEmpty());
    expectAnswer(200, "{\"result\": \"OK\"}\n", answerTo(m_service.complete(request, upload)));
    EXPECT_THAT(m_added, ElementsAre("app/AB0"));
    expectAnswer(200, "{\"status\": \"FOUND\"}\n", answerTo(m_service.status(request, "app/AB0")));
    expectAnswer(200, "{\"status\": \"MISSING\"}\n", answerTo(m_service.status(request, "app")));
    expectAnswer(404, "There is no such upload.\n", answerTo(m_service.put({}, upload), kSymbols));
}

TEST_F(SymbolServiceTest, WithoutTheKeyNothingIsTaken) {
    HttpRequest request = requestWithKey();
    for (const std::string& key : {std::string(), std::string("a secreT"), kKey + "s"}) {
        request.key = key;
        for (const HttpResponse& answer :
             {answerTo(m_service.receiveForm(request), formOf({"symbol_file"})),
              answerTo(m_service.status(request, "app/AB0")), answerTo(m_service.create(request)),
              answerTo(m_service.complete(request, "0"))})
            expectAnswer(403, "The key is missing or wrong.\n", answer);
    }
    EXPECT_THAT(m_added, IsEmpty());
}

TEST_F(SymbolServiceTest, WhereThereIsNoKeyTheEmptyOneIsNone) {
    SymbolService::Options without_key = options();
    without_key.key = "";
    SymbolService service(m_store, without_key);
    HttpRequest request = requestWithKey();
    request.key = "";
    expectAnswer(403, "This collector takes no symbols: it was started without --symbol-key.\n",
                 answerTo(service.receiveForm(request), formOf({"symbol_file"})));
}

TEST_F(SymbolServiceTest, SaysWhatIsWrongWithAForm) {
    for (const auto& names : {std::vector<std::string>{"file"}, {"symbol_file", "symbol_file"}})
        expectAnswer(400, "The form must have one file, named \"symbol_file\".\n",
                     answerTo(m_service.receiveForm(requestWithKey()), formOf(names)));
    expectAnswer(400,
                 "The symbol file does not begin with a line MODULE SYSTEM CPU ID NAME that names a module\n",
                 answerTo(m_service.receiveForm(requestWithKey()), formOf({})));
    HttpRequest request = requestWithKey();
    request.content_type = "text/plain";
    expectAnswer(400, "Symbols are a form of the type multipart/form-data.\n",
                 answerTo(m_service.receiveForm(request), kSymbols));
    EXPECT_THAT(m_added, IsEmpty());
}

TEST_F(SymbolServiceTest, WhatIsTooLargeIsRefusedBeforeItIsSent) {
    HttpRequest request = requestWithKey();
    request.content_length = kMostBytes + 65'536;
    EXPECT_EQ(200, answerTo(m_service.receiveForm(request), formOf({"symbol_file"})).status);
    request.content_length = kMostBytes + 65'537;
    const HttpDecision form = m_service.receiveForm(request);
    ASSERT_TRUE(std::holds_alternative<HttpResponse>(form));
    expectAnswer(413, "The symbol file is larger than 100 bytes.\n", std::get<HttpResponse>(form));

    request.content_length = kMostBytes + 1;
    const HttpDecision file = m_service.put(request, open());
    ASSERT_TRUE(std::holds_alternative<HttpResponse>(file));
    expectAnswer(413, "The symbol file is larger than 100 bytes.\n", std::get<HttpResponse>(file));
}

TEST_F(SymbolServiceTest, AFileOfUnknownLengthIsBoundedAsWell) {
    const std::string upload = open();
    const std::string most = kSymbols + std::string(kMostBytes - kSymbols.size(), '\n');
    expectAnswer(200, "Received.\n", answerTo(m_service.put({}, upload), most));
    expectAnswer(413, "The file is larger than 100 bytes.\n",
                 answerTo(m_service.put({}, upload), most + "\n"));
    HttpDecision endless = m_service.put({}, upload);
    EXPECT_FALSE(
        std::get<std::unique_ptr<BodyReceiver>>(endless)->take(std::string(2 * kMostBytes + 1, '\n')));
    expectAnswer(200, "{\"result\": \"OK\"}\n", answerTo(m_service.complete(requestWithKey(), upload)));
}

TEST_F(SymbolServiceTest, WhereNoFileIsToBeHadAnotherTryMayHelp) {
    SymbolService::Options without_files = options();
    without_files.new_file = [] {
        errno = ENOSPC;
        return nullptr;
    };
    SymbolService service(m_store, without_files);
    const std::string body = answerTo(service.create(requestWithKey())).body;
    const std::string upload = body.substr(body.rfind("\"}") - 32, 32);
    for (const HttpResponse& answer :
         {answerTo(service.receiveForm(requestWithKey()), formOf({"symbol_file"})),
          answerTo(service.put({}, upload), kSymbols)}) {
        expectAnswer(503, "The symbols cannot be stored: No space left on device.\n", answer);
        EXPECT_EQ(60U, answer.retry_after);
    }
}

TEST_F(SymbolServiceTest, AnAnswerNamesAServerAsTheRequestDidOrNone) {
    HttpRequest request = requestWithKey();
    for (const char* host : {"", "a/b", "a\"b", "a b"}) {
        request.host = host;
        expectAnswer(400, "The request does not say by which name it knows this server.\n",
                     answerTo(m_service.create(request)));
    }
}

TEST_F(SymbolServiceTest, TheOldestOfTooManyUploadsIsForgotten) {
    const std::string oldest = open();
    HttpDecision late = m_service.put({}, oldest); // whose file is on its way
    const std::string second = open();
    for (int i = 0; i < 63; ++i)
        (void)open();
    expectAnswer(404, "There is no such upload any more.\n", answerTo(std::move(late), kSymbols));
    expectAnswer(404, "There is no such upload.\n", answerTo(m_service.put({}, oldest), kSymbols));
    expectAnswer(200, "Received.\n", answerTo(m_service.put({}, second), kSymbols));
}

} // namespace

} // namespace vantor::collector
