#include "client/log_ring.h"

#include "client/annotation_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vantor::client {

using crash::CustomDataEntry;

namespace {

void copyText(const CustomDataEntry& from, CustomDataEntry* to) {
    std::memcpy(to->value, from.value, std::strlen(from.value) + 1);
}

} // namespace

LogRing::LogRing(RecordTable& table) : m_table(table) {
    RecordTable::Change change(m_table);
    size_t number = 1;
    for (CustomDataEntry& record : change.edit(0, m_table.fixedCount()))
        (void)snprintf(record.name, sizeof(record.name), "log_%zu", number++);
    (void)change.publish(change.shown().size(), change.textBytes()); // nobody else could freeze it
}

AnnotationError LogRing::add(std::string_view line) {
    const size_t count = m_table.fixedCount();
    if (count == 0)
        return AnnotationError::TableFull;

    CustomDataEntry newest;
    AnnotationError error = copyValue(line, &newest);
    if (error != AnnotationError::None)
        return error;

    RecordTable::Change change(m_table);
    if (change.error() != AnnotationError::None)
        return change.error();

    const auto lines = change.shown().first(count);
    const auto is_empty = [](const CustomDataEntry& record) { return record.value[0] == '\0'; };
    const auto used = static_cast<size_t>(std::find_if(lines.begin(), lines.end(), is_empty) - lines.begin());
    const size_t first = used < count ? used : 0;
    const auto edited = change.edit(first, used < count ? 1 : count);
    for (size_t i = 0; i + 1 < edited.size(); ++i)
        copyText(lines[i + 1], &edited[i]);
    copyText(newest, &edited.back());
    return change.publish(change.shown().size(), change.textBytes());
}

} // namespace vantor::client
