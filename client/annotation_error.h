#pragma once

namespace vantor::client {

/// Why an annotation was not changed. The table then stands as it stood before.
enum class AnnotationError {
    None,
    NameEmpty,
    NameTooLong,
    NameBytes,
    NameReserved,
    ValueEmpty,
    ValueTooLong,
    ValueBytes,
    TableFull,
    ReportFull,
    Frozen,
    Busy,
    Capacity,
    Memory,
};

/// What to do about it, as one English sentence; "" for None. A constant, for any thread and for signal
/// handlers.
const char* explain(AnnotationError error);

} // namespace vantor::client
