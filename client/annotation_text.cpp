#include "client/annotation_text.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace vantor::client {

namespace {

struct Errors {
    AnnotationError empty;
    AnnotationError too_long;
    AnnotationError bytes;
};

template <size_t size>
AnnotationError copyText(std::string_view text, char (&field)[size], const Errors& errors) {
    if (text.empty())
        return errors.empty;
    if (text.size() >= size)
        return errors.too_long;

    // The copy is judged: another thread may be writing to the original.
    std::memcpy(field, text.data(), text.size());
    field[text.size()] = '\0';
    if (std::memchr(field, '\0', text.size()) != nullptr || std::memchr(field, '\n', text.size()) != nullptr)
        return errors.bytes;
    return AnnotationError::None;
}

} // namespace

AnnotationError copyName(std::string_view name, crash::CustomDataEntry* record) {
    std::memset(record->name, 0, sizeof(record->name));
    return copyText(name, record->name,
                    {AnnotationError::NameEmpty, AnnotationError::NameTooLong, AnnotationError::NameBytes});
}

AnnotationError copyValue(std::string_view value, crash::CustomDataEntry* record) {
    return copyText(
        value, record->value,
        {AnnotationError::ValueEmpty, AnnotationError::ValueTooLong, AnnotationError::ValueBytes});
}

AnnotationError makeRecord(std::string_view name, std::string_view value, crash::CustomDataEntry* record) {
    const AnnotationError error = copyName(name, record);
    return error != AnnotationError::None ? error : copyValue(value, record);
}

void copyRecord(const crash::CustomDataEntry& from, crash::CustomDataEntry* to) {
    std::memcpy(to, &from, offsetof(crash::CustomDataEntry, value) + std::strlen(from.value) + 1);
}

size_t textBytes(const crash::CustomDataEntry& record) {
    return std::strlen(record.name) + 1 + std::strlen(record.value) + 1;
}

bool isReservedName(std::string_view name) {
    constexpr std::string_view kReserved[] = {"guid", "time", "disable_upload", "interactive"};
    return std::find(std::begin(kReserved), std::end(kReserved), name) != std::end(kReserved);
}

} // namespace vantor::client
