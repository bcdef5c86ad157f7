#include "client/status.h"

namespace vantor::client {

VantorCrashStatus statusOf(AnnotationError error) {
    switch (error) {
    case AnnotationError::None:
        return VANTOR_CRASH_OK;
    case AnnotationError::NameEmpty:
        return VANTOR_CRASH_NAME_EMPTY;
    case AnnotationError::NameTooLong:
        return VANTOR_CRASH_NAME_TOO_LONG;
    case AnnotationError::NameBytes:
        return VANTOR_CRASH_NAME_BYTES;
    case AnnotationError::NameReserved:
        return VANTOR_CRASH_NAME_RESERVED;
    case AnnotationError::ValueEmpty:
        return VANTOR_CRASH_VALUE_EMPTY;
    case AnnotationError::ValueTooLong:
        return VANTOR_CRASH_VALUE_TOO_LONG;
    case AnnotationError::ValueBytes:
        return VANTOR_CRASH_VALUE_BYTES;
    case AnnotationError::TableFull:
        return VANTOR_CRASH_TABLE_FULL;
    case AnnotationError::ReportFull:
        return VANTOR_CRASH_REPORT_FULL;
    case AnnotationError::Frozen:
        return VANTOR_CRASH_FROZEN;
    case AnnotationError::Busy:
        return VANTOR_CRASH_BUSY;
    case AnnotationError::Capacity:
        return VANTOR_CRASH_OPTION;
    case AnnotationError::Memory:
        return VANTOR_CRASH_NO_MEMORY;
    }
    return VANTOR_CRASH_OPTION;
}

} // namespace vantor::client

const char* vantor_crash_explain(VantorCrashStatus status) {
    using vantor::client::AnnotationError;
    using vantor::client::explain;
    switch (status) {
    case VANTOR_CRASH_OK:
        return "";
    case VANTOR_CRASH_NO_SERVER:
        return "There is no crash server: reports are kept for the next start. Look at what the start had to "
               "say.";
    case VANTOR_CRASH_NOT_STARTED:
        return "The service does not run in this process: call vantor_crash_start() first.";
    case VANTOR_CRASH_ALREADY_STARTED:
        return "The service runs in this process already: start it once.";
    case VANTOR_CRASH_OPTION:
        return "An option has a value that is not allowed: annotation_capacity has 1 to 1024, log_lines 0 to "
               "99, and "
               "the deadlines have 1 to 600000.";
    case VANTOR_CRASH_NO_MEMORY:
        return explain(AnnotationError::Memory);
    case VANTOR_CRASH_NO_PROCESS:
        return "The process that looks after the crash server could not be made: allow this user more "
               "processes.";
    case VANTOR_CRASH_NOT_WRITTEN:
        return "No report could be written: see that the disk has room, that the crash directory can be "
               "written to, and "
               "that this process may be traced.";
    case VANTOR_CRASH_NAME_EMPTY:
        return explain(AnnotationError::NameEmpty);
    case VANTOR_CRASH_NAME_TOO_LONG:
        return explain(AnnotationError::NameTooLong);
    case VANTOR_CRASH_NAME_BYTES:
        return explain(AnnotationError::NameBytes);
    case VANTOR_CRASH_NAME_RESERVED:
        return explain(AnnotationError::NameReserved);
    case VANTOR_CRASH_VALUE_EMPTY:
        return explain(AnnotationError::ValueEmpty);
    case VANTOR_CRASH_VALUE_TOO_LONG:
        return explain(AnnotationError::ValueTooLong);
    case VANTOR_CRASH_VALUE_BYTES:
        return explain(AnnotationError::ValueBytes);
    case VANTOR_CRASH_TABLE_FULL:
        return explain(AnnotationError::TableFull);
    case VANTOR_CRASH_REPORT_FULL:
        return explain(AnnotationError::ReportFull);
    case VANTOR_CRASH_FROZEN:
        return explain(AnnotationError::Frozen);
    case VANTOR_CRASH_BUSY:
        return explain(AnnotationError::Busy);
    case VANTOR_CRASH_NO_DIRECTORY:
        return "The crash directory cannot be written to: give this user the right to, or name another "
               "data_home.";
    }
    return "This is no status of this library.";
}
