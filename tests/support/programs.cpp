#include "tests/support/programs.h"

namespace vantor::test {

const char* const kCrashServer = CRASH_SERVER;
const char* const kImpatientCrashServer = CRASH_SERVER_IMPATIENT;
const char* const kCrashCollector = CRASH_COLLECTOR;
const char* const kCrashDoctor = CRASH_DOCTOR;
const char* const kTestApplication = TEST_APPLICATION;
const char* const kCrashingApplication = CRASHING_APPLICATION;
const char* const kBrakedServer = BRAKED_SERVER;
const char* const kDumpSyms = DUMP_SYMS;
const char* const kMinidumpStackwalk = MINIDUMP_STACKWALK;
const char* const kSymUpload = SYM_UPLOAD;

} // namespace vantor::test
