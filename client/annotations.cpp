#include "client/annotations.h"

#include "client/annotation_text.h"

#include <algorithm>
#include <new>
#include <utility>

namespace vantor::client {

using crash::CustomDataEntry;

AnnotationError Annotations::create(const Options& options, std::unique_ptr<Annotations>* out) {
    if (options.capacity == 0 || options.capacity > kMostCapacity || options.log_lines > LogRing::kMostLines)
        return AnnotationError::Capacity;

    auto table = RecordTable::map(options.log_lines + options.capacity, options.log_lines);
    if (!table)
        return AnnotationError::Memory;
    std::unique_ptr<Annotations> annotations(new (std::nothrow) Annotations(std::move(table)));
    if (!annotations)
        return AnnotationError::Memory;
    *out = std::move(annotations);
    return AnnotationError::None;
}

Annotations::Annotations(std::unique_ptr<RecordTable> table) : m_table(std::move(table)), m_log(*m_table) {}

AnnotationError Annotations::set(std::string_view name, std::string_view value) {
    return isReservedName(name) ? AnnotationError::NameReserved : setReserved(name, value);
}

AnnotationError Annotations::clear(std::string_view name) {
    return isReservedName(name) ? AnnotationError::NameReserved : clearReserved(name);
}

AnnotationError Annotations::setReserved(std::string_view name, std::string_view value) {
    CustomDataEntry record;
    const AnnotationError error = makeRecord(name, value, &record);
    return error != AnnotationError::None ? error : setRecord(record);
}

AnnotationError Annotations::clearReserved(std::string_view name) {
    CustomDataEntry record;
    const AnnotationError error = copyName(name, &record);
    return error != AnnotationError::None ? error : clearRecord(record);
}

void Annotations::addFact(std::string_view name, std::string_view value) {
    CustomDataEntry* const fact = m_table->addFact();
    if (fact == nullptr)
        return;
    std::copy_n(name.data(), std::min(name.size(), sizeof(fact->name) - 1), fact->name);
    const size_t size = std::min(value.size(), sizeof(fact->value) - 1);
    std::replace_copy_if(
        value.data(), value.data() + size, fact->value, [](char c) { return c == '\n' || c == '\0'; }, ' ');
}

AnnotationError Annotations::setRecord(const CustomDataEntry& record) {
    RecordTable::Change change(*m_table);
    if (change.error() != AnnotationError::None)
        return change.error();

    const auto shown = change.shown();
    const size_t i = change.find(record);
    if (i < m_table->fixedCount())
        return AnnotationError::NameReserved;
    if (i >= m_table->capacity())
        return AnnotationError::TableFull;

    const size_t old_bytes = i < shown.size() ? textBytes(shown[i]) : 0;
    const size_t text_bytes = change.textBytes() - old_bytes + textBytes(record);
    if (text_bytes > kMostTextBytes - m_table->fixedCount() * LogRing::kMostBytesPerLine)
        return AnnotationError::ReportFull;

    copyRecord(record, &change.edit(i, 1)[0]);
    return change.publish(i < shown.size() ? shown.size() : shown.size() + 1, text_bytes);
}

AnnotationError Annotations::clearRecord(const CustomDataEntry& record) {
    RecordTable::Change change(*m_table);
    if (change.error() != AnnotationError::None)
        return change.error();

    const auto shown = change.shown();
    const size_t i = change.find(record);
    if (i < m_table->fixedCount())
        return AnnotationError::NameReserved;
    if (i == shown.size())
        return AnnotationError::None;

    copyRecord(shown.back(), &change.edit(i, 1)[0]); // the order means nothing
    return change.publish(shown.size() - 1, change.textBytes() - textBytes(shown[i]));
}

} // namespace vantor::client
