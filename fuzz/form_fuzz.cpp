// A form that comes in pieces, by its first bytes' sizes, becomes what it becomes as a whole; and its sink is
// never given more than the limits.

#include "collector/form_reader.h"
#include "fuzz/require.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

using namespace vantor::collector;

namespace {

// Small, so that short inputs reach them.
constexpr FormLimits kLimits = {
    .body_bytes = 600, .file_bytes = 40, .fields = 3, .field_bytes = 40, .name_bytes = 12, .value_bytes = 24};
constexpr size_t kSizes = 4;

class CheckedSink final : public FormSink {
public:
    std::optional<Rejection> beginFile(const std::string& name, const std::string& filename) override {
        require(!m_is_in_file && name.size() <= kLimits.name_bytes);
        m_is_in_file = true;
        events.push_back(name + '\0' + filename);
        contents.emplace_back();
        return std::nullopt;
    }
    std::optional<Rejection> fileData(std::string_view piece) override {
        require(m_is_in_file && !piece.empty());
        contents.back() += piece;
        m_file_bytes += piece.size();
        require(m_file_bytes <= kLimits.file_bytes);
        return std::nullopt;
    }
    std::optional<Rejection> endFile() override {
        require(m_is_in_file);
        m_is_in_file = false;
        return std::nullopt;
    }
    std::optional<Rejection> field(const std::string& name, const std::string& value) override {
        require(!m_is_in_file && name.size() <= kLimits.name_bytes && value.size() <= kLimits.value_bytes);
        events.push_back(name + '\0' + value);
        m_field_bytes += name.size() + value.size();
        require(++m_fields <= kLimits.fields && m_field_bytes <= kLimits.field_bytes);
        return std::nullopt;
    }

    std::vector<std::string> events;
    std::vector<std::string> contents; // of the files

private:
    bool m_is_in_file = false;
    size_t m_fields = 0;
    size_t m_field_bytes = 0;
    size_t m_file_bytes = 0;
};

struct Outcome {
    std::optional<Rejection> rejection;
    CheckedSink sink;
};

/// Sizes of 0 feed nothing; when there is no other, all comes at once.
Outcome read(std::string_view form, const uint8_t* sizes) {
    Outcome outcome;
    FormReader reader("b", kLimits, outcome.sink);
    const bool is_cut = std::any_of(sizes, sizes + kSizes, [](uint8_t size) { return size > 0; });
    for (size_t turn = 0; !form.empty(); ++turn) {
        const std::string_view piece = is_cut ? form.substr(0, sizes[turn % kSizes]) : form;
        (void)reader.feed(piece); // finish() says it again
        form.remove_prefix(piece.size());
    }
    outcome.rejection = reader.finish();
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kSizes)
        return 0;

    const std::string_view form(reinterpret_cast<const char*>(data) + kSizes, size - kSizes);
    constexpr uint8_t kWhole[kSizes] = {};
    const Outcome whole = read(form, kWhole);
    const Outcome pieces = read(form, data);
    require(whole.rejection == pieces.rejection);
    require(whole.sink.events == pieces.sink.events);
    // What had come of a file when it was refused depends on the pieces.
    require(whole.rejection || whole.sink.contents == pieces.sink.contents);
    return 0;
}
