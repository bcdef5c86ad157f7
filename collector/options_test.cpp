#include "collector/options.h"

#include <gmock/gmock.h>
#include <vector>

namespace vantor::collector {

namespace {

using testing::HasSubstr;

std::variant<Options, EarlyEnd> parse(std::vector<std::string> words) {
    words.insert(words.begin(), "crash_collector");
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return parseOptions(static_cast<int>(words.size()), pointers.data());
}

/// The options that must be there, and these.
std::vector<std::string> with(const std::vector<std::string>& more) {
    std::vector<std::string> words = {"--certificate", "c.pem", "--key", "k.pem", "--data", "d"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

Options optionsOf(const std::vector<std::string>& words) {
    const std::variant<Options, EarlyEnd> parsed = parse(words);
    const Options* options = std::get_if<Options>(&parsed);
    EXPECT_NE(nullptr, options);
    return options != nullptr ? *options : Options();
}

/// What a person is told of a wrong command line.
std::string complaintOf(const std::vector<std::string>& words) {
    const std::variant<Options, EarlyEnd> parsed = parse(words);
    const EarlyEnd* end = std::get_if<EarlyEnd>(&parsed);
    EXPECT_NE(nullptr, end);
    if (end == nullptr)
        return "";
    EXPECT_EQ(2, end->status);
    const std::string try_help = "\nTry 'crash_collector --help'.\n";
    EXPECT_THAT(end->text, testing::StartsWith("crash_collector: "));
    EXPECT_THAT(end->text, testing::EndsWith(try_help));
    return end->text.substr(17, end->text.size() - 17 - try_help.size());
}

TEST(OptionsTest, HaveDefaults) {
    const Options options = optionsOf(with({}));
    EXPECT_EQ("127.0.0.1", options.address);
    EXPECT_EQ(8443, options.port);
    EXPECT_EQ("c.pem", options.certificate_file);
    EXPECT_EQ("k.pem", options.key_file);
    EXPECT_EQ("d", options.data_directory);
    EXPECT_EQ("d/symbols", options.symbols_directory);
    EXPECT_EQ("", options.symbol_key_file);
    EXPECT_EQ(67'108'864U, options.form.file_bytes);
    EXPECT_EQ(68'157'440U, options.form.body_bytes);
    EXPECT_EQ(1'073'741'824U, options.most_symbol_bytes);
    EXPECT_EQ(4'096U, options.connections);
    EXPECT_EQ(60U, options.silence_seconds);
    EXPECT_EQ(268'435'456U, options.keep_free_bytes);
    EXPECT_EQ(1'024U, options.connections_per_address);
}

TEST(OptionsTest, AreWhatTheCommandLineSays) {
    const Options options =
        optionsOf(with({"--listen", "0.0.0.0:1",     "--symbols=s", "--symbol-key", "sk", "--max-dump",
                        "1",        "--max-body",    "2",           "--max-fields", "3",  "--max-field-bytes",
                        "4",        "--max-name",    "5",           "--max-value",  "6",  "--max-symbols",
                        "7",        "--connections", "8",           "--silence",    "9"}));
    EXPECT_EQ("0.0.0.0", options.address);
    EXPECT_EQ(1, options.port);
    EXPECT_EQ("s", options.symbols_directory);
    EXPECT_EQ("sk", options.symbol_key_file);
    EXPECT_EQ(1U, options.form.file_bytes);
    EXPECT_EQ(2U, options.form.body_bytes);
    EXPECT_EQ(3U, options.form.fields);
    EXPECT_EQ(4U, options.form.field_bytes);
    EXPECT_EQ(5U, options.form.name_bytes);
    EXPECT_EQ(6U, options.form.value_bytes);
    EXPECT_EQ(7U, options.most_symbol_bytes);
    EXPECT_EQ(8U, options.connections);
    EXPECT_EQ(9U, options.silence_seconds);
}

TEST(OptionsTest, AddressesOfVersion6StandInBrackets) {
    const Options options = optionsOf(with({"--listen", "[::1]:8443"}));
    EXPECT_EQ("::1", options.address);
    EXPECT_EQ(8443, options.port);
}

TEST(OptionsTest, SayWhatIsMissing) {
    EXPECT_EQ("--certificate is missing: the file of the server's certificate, in PEM", complaintOf({}));
    EXPECT_EQ("--key is missing: the file of the certificate's private key, in PEM",
              complaintOf({"--certificate", "c"}));
    EXPECT_EQ("--data is missing: the directory that reports are kept in",
              complaintOf({"--certificate", "c", "--key", "k"}));
}

TEST(OptionsTest, SayWhatIsWrong) {
    EXPECT_EQ("there is no option --frob", complaintOf(with({"--frob"})));
    EXPECT_EQ("there is no option -x", complaintOf(with({"-xy"})));
    EXPECT_EQ("--max-body must be larger than --max-dump: a form has more in it than the dump",
              complaintOf(with({"--max-dump", "68157440"})));
    EXPECT_EQ("--data wants a value", complaintOf({"--data"}));
    EXPECT_EQ("--data must not be empty", complaintOf({"--data", ""}));
    EXPECT_EQ("'more' belongs to no option", complaintOf(with({"more"})));
    for (const std::string wrong :
         {"", "8443", ":8443", "1.2.3.4", "1.2.3.4:", "1.2.3.4:x", "1.2.3.4:65536", "::1:8443"})
        EXPECT_THAT(complaintOf(with({"--listen", wrong})), HasSubstr("'" + wrong + "'"));
    for (const std::string wrong : {"0", "-1", "1k", "x", "99999999999999999999", "1099511627777"})
        EXPECT_EQ("--max-dump wants a whole number from 1 up, and not '" + wrong + "'",
                  complaintOf(with({"--max-dump", wrong})));
}

TEST(OptionsTest, ExplainThemselves) {
    const std::variant<Options, EarlyEnd> help = parse({"--help"});
    EXPECT_EQ(kUsage, std::get<EarlyEnd>(help).text);
    EXPECT_EQ(0, std::get<EarlyEnd>(help).status);
    const std::variant<Options, EarlyEnd> version = parse({"--version"});
    EXPECT_EQ("crash_collector " VANTOR_VERSION "\n", std::get<EarlyEnd>(version).text);
}

} // namespace

} // namespace vantor::collector
