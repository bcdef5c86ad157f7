#include "client/annotation_error.h"

namespace vantor::client {

const char* explain(AnnotationError error) {
    switch (error) {
    case AnnotationError::None:
        return "";
    case AnnotationError::NameEmpty:
        return "The name is empty: give the annotation a name of 1 to 63 bytes.";
    case AnnotationError::NameTooLong:
        return "The name is longer than 63 bytes: shorten it.";
    case AnnotationError::NameBytes:
        return "The name has a line feed or a NUL in it: leave these out.";
    case AnnotationError::NameReserved:
        return "The crash server or this library gives this name a meaning: take another one.";
    case AnnotationError::ValueEmpty:
        return "The value is empty, and would be left out of the report: clear the annotation instead.";
    case AnnotationError::ValueTooLong:
        return "The value is longer than 255 bytes: shorten it, or spread it over several annotations.";
    case AnnotationError::ValueBytes:
        return "The value has a line feed or a NUL in it: replace these, or use one annotation for each "
               "line.";
    case AnnotationError::TableFull:
        return "There are as many annotations as there is room for: clear one, or start with a larger "
               "capacity.";
    case AnnotationError::ReportFull:
        return "The annotations would exceed the 102,400 bytes that a report may have: clear or shorten "
               "some.";
    case AnnotationError::Frozen:
        return "A report is being written, so nothing may change: set it again if the process lives on.";
    case AnnotationError::Busy:
        return "Another change does not end, as one does not that a signal handler has interrupted: set it "
               "again later, and not from signal handlers.";
    case AnnotationError::Capacity:
        return "The table can have 1 to 1024 annotations and 0 to 99 lines of a log: change these numbers.";
    case AnnotationError::Memory:
        return "The kernel refuses memory for the table: raise the limits on memory and mappings; "
               "Linux 4.14 or later is needed.";
    }
    return "";
}

} // namespace vantor::client
