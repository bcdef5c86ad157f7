#pragma once

#include "client/annotation_error.h"
#include "crash/custom_data_entry.h"

#include <cstddef>
#include <string_view>

namespace vantor::client {

// The rules for what an annotation may say. They keep the parameters file readable for the server: it has no
// escapes, drops what is empty, and has a largest size (docs/report-files.md).

/// What the texts of all annotations may take in the parameters file together: its largest size, less a
/// record each for what the server knows better, "time" with 20 digits and "guid" with 36 characters.
inline constexpr size_t kMostTextBytes = 102'400 - (sizeof("time\n01234567890123456789\n") - 1) -
                                         (sizeof("guid\n01234567-89ab-cdef-01234567-89abcdef\n") - 1);

/// Makes a record of both texts, the name followed by zeroes to the end of its field, the value by one; or
/// says which text breaks a rule, and leaves `*record` undefined.
AnnotationError makeRecord(std::string_view name, std::string_view value, crash::CustomDataEntry* record);

/// The same for one text alone.
AnnotationError copyName(std::string_view name, crash::CustomDataEntry* record);
AnnotationError copyValue(std::string_view value, crash::CustomDataEntry* record);

/// Copies both texts, and not what stands after the value's NUL: most values are short.
void copyRecord(const crash::CustomDataEntry& from, crash::CustomDataEntry* to);

/// The bytes that a record takes in the parameters file: both texts, each with a line feed.
size_t textBytes(const crash::CustomDataEntry& record);

/// True for "guid", "time", "disable_upload" and "interactive", which mean something to the server.
bool isReservedName(std::string_view name);

} // namespace vantor::client
