#include "tests/support/running_setter.h"

#include <charconv>
#include <cstdio>
#include <unistd.h>

namespace vantor::test {

using client::AnnotationError;
using client::Annotations;

namespace {

constexpr uint64_t kLines = 4;
constexpr uint64_t kOffset = 1'000'000'000'000; // so that all numbers have 13 digits

/// A number, written again and again: a mixture of two shows.
std::string text(uint64_t number) {
    const std::string digits = std::to_string(kOffset + number);
    std::string text;
    for (int i = 0; i < 15; ++i)
        text += digits;
    return text;
}

/// 0 when it is no such text.
uint64_t numberIn(const Params& params, const std::string& name) {
    const auto found = params.find(name);
    if (found == params.end() || found->second.size() < 13)
        return 0;
    uint64_t number = 0;
    (void)std::from_chars(found->second.data(), found->second.data() + 13, number);
    return text(number - kOffset) == found->second ? number - kOffset : 0;
}

template <typename Change>
void repeat(std::atomic<uint64_t>& refused, const Change& change) {
    for (AnnotationError error = change(); error != AnnotationError::None; error = change()) {
        if (error != AnnotationError::Frozen) {
            fprintf(stderr, "%s\n", explain(error));
            _exit(99);
        }
        ++refused;
    }
}

void setAll(Annotations& annotations, uint64_t number, std::atomic<uint64_t>& refused) {
    const std::string value = text(number);
    repeat(refused, [&] { return annotations.set("first", value); });
    repeat(refused, [&] { return annotations.set("second", value); });
    repeat(refused, [&] { return annotations.log().add(value); });
    repeat(refused,
           [&] { return number % 2 == 0 ? annotations.clear("odd") : annotations.set("odd", value); });
}

} // namespace

std::unique_ptr<Annotations> tableThatIsFilled() {
    std::unique_ptr<Annotations> annotations;
    if (Annotations::create({.capacity = 8, .log_lines = kLines}, &annotations) != AnnotationError::None)
        return nullptr;
    std::atomic<uint64_t> refused = 0;
    for (uint64_t number = 1; number <= kLines; ++number)
        setAll(*annotations, number, refused);
    return annotations;
}

RunningSetter::RunningSetter(Annotations& annotations)
    : m_annotations(annotations),
      m_thread(&RunningSetter::run, this) {}

RunningSetter::~RunningSetter() {
    m_is_stopping = true;
    m_thread.join();
}

void RunningSetter::run() {
    for (uint64_t number = kLines + 1; !m_is_stopping; ++number) {
        setAll(m_annotations, number, m_refused);
        m_number = number;
    }
}

std::string complaintAbout(const Params& params) {
    const uint64_t first = numberIn(params, "first");
    const uint64_t second = numberIn(params, "second");
    const uint64_t newest = numberIn(params, "log_" + std::to_string(kLines));
    if (first == 0 || second == 0 || newest == 0)
        return "a text is missing or torn";
    if (second != first && second + 1 != first)
        return "first is " + std::to_string(first) + ", second " + std::to_string(second);
    if (newest != second && newest + 1 != second)
        return "second is " + std::to_string(second) + ", the newest line " + std::to_string(newest);
    for (uint64_t i = 1; i < kLines; ++i)
        if (numberIn(params, "log_" + std::to_string(i)) + kLines - i != newest)
            return "line " + std::to_string(i) + " does not fit the newest";

    // "odd" is of the newest line's round or, not changed yet, of the round before.
    const bool is_there = params.contains("odd");
    const uint64_t odd = numberIn(params, "odd");
    if (is_there && (odd % 2 == 0 || (odd != newest && odd + 1 != newest)))
        return "odd is of another round";
    if (params.size() != 2 + kLines + (is_there ? 1 : 0))
        return "there are names that nobody set";
    return "";
}

} // namespace vantor::test
