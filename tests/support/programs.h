#pragma once

namespace vantor::test {

// Where this build's programs are.

extern const char* const kCrashServer;
/// The crash server with an uploader that gives up after some seconds.
extern const char* const kImpatientCrashServer;
extern const char* const kCrashCollector;
extern const char* const kCrashDoctor;
extern const char* const kTestApplication;
extern const char* const kCrashingApplication;
/// The crash server behind a Brake.
extern const char* const kBrakedServer;
extern const char* const kDumpSyms;
extern const char* const kMinidumpStackwalk;
extern const char* const kSymUpload;

} // namespace vantor::test
