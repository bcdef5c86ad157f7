#include "collector/form_reader.h"

#include "tests/support/printed_rejection.h"

#include <gmock/gmock.h>
#include <vector>

namespace vantor::collector {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr FormLimits kLimits = {.body_bytes = 1000,
                                .file_bytes = 300,
                                .fields = 3,
                                .field_bytes = 60,
                                .name_bytes = 16,
                                .value_bytes = 32};

Rejection tooLarge(const std::string& reason) {
    return {Rejection::Kind::TooLarge, reason};
}

/// Writes down what it is given, a line for each field and file.
class Notes final : public FormSink {
public:
    std::optional<Rejection> beginFile(const std::string& name, const std::string& filename) override {
        lines.push_back(name + " from " + filename + ": ");
        return answer("beginFile");
    }
    std::optional<Rejection> fileData(std::string_view piece) override {
        EXPECT_FALSE(piece.empty());
        lines.back() += piece;
        return answer("fileData");
    }
    std::optional<Rejection> endFile() override {
        lines.back() += '.';
        return answer("endFile");
    }
    std::optional<Rejection> field(const std::string& name, const std::string& value) override {
        lines.push_back(name + " = " + value);
        return answer("field");
    }

    std::string refused_call; // "": none
    std::vector<std::string> lines;

private:
    std::optional<Rejection> answer(const std::string& call) const {
        return call == refused_call ? std::optional(bad("No " + call + ".")) : std::nullopt;
    }
};

/// What became of a form.
struct Outcome {
    std::optional<Rejection> rejection;
    std::vector<std::string> lines;
};

Outcome read(const std::string& form, const FormLimits& limits = kLimits, size_t piece_size = SIZE_MAX,
             const std::string& refused_call = "") {
    Notes notes;
    notes.refused_call = refused_call;
    FormReader reader("bound", limits, notes);
    for (std::string_view rest = form; !rest.empty(); rest.remove_prefix(std::min(rest.size(), piece_size)))
        (void)reader.feed(rest.substr(0, piece_size));
    return {reader.finish(), notes.lines};
}

std::string fieldPart(const std::string& name, const std::string& value) {
    return "--bound\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
}

std::string filePart(const std::string& name, const std::string& filename, const std::string& content) {
    return "--bound\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"" + filename +
           "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + content + "\r\n";
}

const std::string kEnd = "--bound--\r\n";
// Contents that begin as the delimiter does.
const std::string kForm = fieldPart("guid", "1\r\n--boun") + fieldPart("empty", "") +
                          filePart("crash", "a.dmp", "MDMP\r\n\r\n--\r\r\n--bouns\r\n-") + kEnd;

TEST(FormReaderTest, HandsOnFieldsAndFilesInTheirOrder) {
    const Outcome outcome = read(kForm);
    EXPECT_EQ(outcome.rejection, std::nullopt);
    EXPECT_THAT(outcome.lines, ElementsAre("guid = 1\r\n--boun", "empty = ",
                                           "crash from a.dmp: MDMP\r\n\r\n--\r\r\n--bouns\r\n-."));
}

TEST(FormReaderTest, PiecesOfAnySizeMakeNoDifference) {
    const Outcome whole = read(kForm);
    for (size_t size = 1; size < kForm.size(); ++size) {
        const Outcome pieces = read(kForm, kLimits, size);
        EXPECT_EQ(pieces.rejection, std::nullopt) << size;
        EXPECT_EQ(pieces.lines, whole.lines) << size;
    }
}

TEST(FormReaderTest, AFormThatIsCutIsRefused) {
    const size_t end = kForm.size() - std::string("\r\n").size(); // the line's end is no part of the boundary
    for (size_t size = 0; size < end; ++size)
        EXPECT_EQ(read(kForm.substr(0, size)).rejection, bad("The form ends before its closing boundary."))
            << size;
    EXPECT_EQ(read(kForm.substr(0, end)).rejection, std::nullopt);
    EXPECT_EQ(read(kForm.substr(0, end + 1)).rejection, std::nullopt);
}

TEST(FormReaderTest, ALineEndMayComeFirstAndAnythingLast) {
    const Outcome outcome = read("\r\n" + fieldPart("a", "1") + kEnd + fieldPart("b", "2") + "\r\n--bound");
    EXPECT_EQ(outcome.rejection, std::nullopt);
    EXPECT_THAT(outcome.lines, ElementsAre("a = 1"));
}

TEST(FormReaderTest, AFormMayHaveNoParts) {
    const Outcome outcome = read(kEnd);
    EXPECT_EQ(outcome.rejection, std::nullopt);
    EXPECT_THAT(outcome.lines, IsEmpty());
}

TEST(FormReaderTest, RefusesWhatIsMalformed) {
    const Rejection no_start = bad("The form does not begin with its boundary.");
    const Rejection no_line_end = bad("A boundary of the form is not followed by the end of its line.");
    const Rejection bad_header = bad("The header of a part is not well formed.");
    const struct {
        const char* what;
        std::string form;
        Rejection rejection;
    } cases[] = {
        {"another boundary", "--other\r\n" + kForm, no_start},
        {"a preamble", "Hello\r\n" + kForm, no_start},
        {"two line ends first", "\r\n\r\n" + kForm, no_start},
        {"a bare line feed first", "\n" + kForm, no_start},
        {"no form", "crash=MDMP&guid=1234567890", no_start},
        {"a longer boundary", "--boundary\r\n" + kForm, no_line_end},
        {"blanks after a boundary", "--bound \r\n" + kForm, no_line_end},
        {"a bare line feed after a boundary", "--bound\nX", no_line_end},
        {"half a closing", fieldPart("a", "1") + "--bound-\r\n", no_line_end},
        {"no header", "--bound\r\n\r\n1\r\n" + kForm, bad_header},
        {"no name", "--bound\r\nContent-Disposition: form-data\r\n\r\n1\r\n" + kEnd, bad_header},
        {"a header without its lines", "--bound\r\nx\r\n\r\n1\r\n" + kEnd, bad_header},
        {"a header that a boundary cuts", "--bound\r\nX: 1\r\n" + kForm, bad_header},
    };
    for (const auto& each : cases)
        for (const size_t piece_size : {SIZE_MAX, size_t(1)})
            EXPECT_EQ(read(each.form, kLimits, piece_size).rejection, each.rejection) << each.what;
}

TEST(FormReaderTest, EachLimitIsTheMostThatIsTaken) {
    const std::string file = filePart("crash", "a.dmp", std::string(300, 'f'));
    const std::string full_fields =
        fieldPart("a", std::string(32, 'v')) + fieldPart("b", std::string(26, 'v'));
    const std::string filler(1000 - kForm.size(), 'x'); // behind the form, yet in its body
    const auto header_of = [](size_t size) {
        const std::string begin = "--bound\r\nX: ";
        const std::string end = "\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n";
        return begin + std::string(size - (begin.size() - 9) - end.size(), 'x') + end + "1\r\n" + kEnd;
    };
    FormLimits roomy = kLimits;
    roomy.body_bytes = 100'000;
    const struct {
        const char* what;
        FormLimits limits;
        std::string accepted;
        std::string refused;
        std::string reason;
    } cases[] = {
        {"body", kLimits, kForm + filler, kForm + filler + "x", "The form is larger than 1000 bytes."},
        {"file", kLimits, file + kEnd, filePart("crash", "a.dmp", std::string(301, 'f')) + kEnd,
         "The file is larger than 300 bytes."},
        {"files", kLimits, file + kEnd, file + filePart("b", "b", "f") + kEnd,
         "The file is larger than 300 bytes."},
        {"fields", kLimits, fieldPart("a", "1") + fieldPart("b", "2") + fieldPart("c", "3") + file + kEnd,
         fieldPart("a", "1") + fieldPart("b", "2") + fieldPart("c", "3") + fieldPart("d", "4") + kEnd,
         "The form has more than 3 fields."},
        {"all values", kLimits, full_fields + kEnd,
         fieldPart("a", std::string(32, 'v')) + fieldPart("b", std::string(27, 'v')) + kEnd,
         "The text of all fields is larger than 60 bytes."},
        {"all names", kLimits, full_fields + fieldPart("", "") + kEnd,
         full_fields + fieldPart("c", "") + kEnd, "The text of all fields is larger than 60 bytes."},
        {"name", kLimits, fieldPart(std::string(16, 'n'), "1") + kEnd,
         fieldPart(std::string(17, 'n'), "1") + kEnd, "The name of a part is larger than 16 bytes."},
        {"escaped name", kLimits, fieldPart(std::string(15, 'n') + "%22", "1") + kEnd,
         fieldPart(std::string(16, 'n') + "%22", "1") + kEnd, "The name of a part is larger than 16 bytes."},
        {"file's name", kLimits, filePart(std::string(16, 'n'), "a", "") + kEnd,
         filePart(std::string(17, 'n'), "a", "") + kEnd, "The name of a part is larger than 16 bytes."},
        {"value", kLimits, fieldPart("a", std::string(32, 'v')) + kEnd,
         fieldPart("a", std::string(33, 'v')) + kEnd, "The value of a field is larger than 32 bytes."},
        {"part header", roomy, header_of(8192), header_of(8193),
         "The header of a part is larger than 8192 bytes."},
    };
    for (const auto& each : cases) {
        for (const size_t piece_size : {SIZE_MAX, size_t(100), size_t(1)}) {
            EXPECT_EQ(read(each.accepted, each.limits, piece_size).rejection, std::nullopt) << each.what;
            EXPECT_EQ(read(each.refused, each.limits, piece_size).rejection, tooLarge(each.reason))
                << each.what;
        }
    }
}

TEST(FormReaderTest, TheSinkIsNeverGivenMoreThanTheLimits) {
    const Outcome outcome = read(filePart("crash", "a.dmp", std::string(900, 'f')) + kEnd, kLimits, 1);
    EXPECT_THAT(outcome.lines, ElementsAre("crash from a.dmp: " + std::string(300, 'f')));
}

TEST(FormReaderTest, WhatTheSinkRefusesEndsTheReading) {
    for (const char* call : {"beginFile", "fileData", "endFile", "field"}) {
        const Outcome outcome =
            read(filePart("crash", "a.dmp", "1") + fieldPart("a", "1") + fieldPart("b", "2") + kEnd, kLimits,
                 SIZE_MAX, call);
        EXPECT_EQ(outcome.rejection, bad("No " + std::string(call) + "."));
        EXPECT_EQ(outcome.lines.size(), call == std::string("field") ? 2u : 1u) << call;
    }
}

TEST(FormReaderTest, ARefusalStays) {
    Notes notes;
    FormReader reader("bound", kLimits, notes);
    EXPECT_EQ(reader.feed("--bound\r"), std::nullopt);
    EXPECT_EQ(reader.feed("X"), bad("A boundary of the form is not followed by the end of its line."));
    EXPECT_EQ(reader.feed(kForm), reader.finish());
    EXPECT_THAT(notes.lines, IsEmpty());
}

TEST(FormReaderTest, LargePiecesAreHandedOnInSmallOnes) {
    class Sizes final : public FormSink {
    public:
        std::optional<Rejection> beginFile(const std::string&, const std::string&) override { return {}; }
        std::optional<Rejection> fileData(std::string_view piece) override {
            largest = std::max(largest, piece.size());
            total += piece.size();
            return {};
        }
        std::optional<Rejection> endFile() override { return {}; }
        std::optional<Rejection> field(const std::string&, const std::string&) override { return {}; }
        size_t largest = 0;
        size_t total = 0;
    } sizes;
    constexpr size_t kMiB = 1024 * 1024;
    FormReader reader("bound", FormLimits(), sizes);
    EXPECT_EQ(reader.feed(filePart("crash", "a.dmp", std::string(8 * kMiB, 'f')) + kEnd), std::nullopt);
    EXPECT_EQ(reader.finish(), std::nullopt);
    EXPECT_EQ(sizes.total, 8 * kMiB);
    EXPECT_LE(sizes.largest, 32 * 1024u);
}

TEST(BoundaryOfTest, FindsTheBoundaryOfAForm) {
    const std::string longest(70, 'b');
    const struct {
        std::string content_type;
        std::string boundary;
    } cases[] = {
        {"multipart/form-data; boundary=------------------------e9d38131c60275f0",
         "------------------------e9d38131c60275f0"},
        {"Multipart/Form-Data;charset=utf-8;BOUNDARY=\"a b:?\"", "a b:?"},
        {"multipart/form-data; boundary=" + longest, longest},
    };
    for (const auto& each : cases)
        EXPECT_EQ(boundaryOf(each.content_type), each.boundary);
}

TEST(BoundaryOfTest, OtherTypesAndBoundariesAreNone) {
    for (const std::string& content_type : {
             std::string(),
             std::string("application/octet-stream"),
             std::string("multipart/mixed; boundary=a"),
             std::string("multipart/form-data"),
             std::string("multipart/form-data; boundary="),
             std::string("multipart/form-data; boundary=\"\""),
             std::string("multipart/form-data; boundary=\"a "),
             std::string("multipart/form-data; boundary=\"a \""),
             std::string("multipart/form-data; boundary=\"a\r\n\""),
             std::string("multipart/form-data; boundary=\"a\\\"b\""),
             std::string("multipart/form-data; boundary=a; boundary=b"),
             std::string("multipart/form-data; boundary=a b"),
             "multipart/form-data; boundary=" + std::string(71, 'b'),
         })
        EXPECT_EQ(boundaryOf(content_type), std::nullopt) << content_type;
}

} // namespace
} // namespace vantor::collector
