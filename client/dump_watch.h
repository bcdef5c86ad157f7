#pragma once

#include "client/crash_path.h"

// Sees the dumps that appear in the directory of reports while a request is on its way. A dump that was
// opened when it began can be read to the end, also when the server has sent and deleted it meanwhile.
//
// For the companion: no C library, no allocation, closed by the process's end.

namespace vantor::client {

struct SeenDump {
    int descriptor; ///< -1: it was deleted before it could be opened
    char name[kReportNameSize];
    bool has_parameters; ///< a file of them was made
};

struct DumpWatch {
    static constexpr int kMostDumps = 16; ///< others may crash at the same time

    int inotify; ///< -1: it could not be had, and nothing is seen
    int count;
    SeenDump dumps[kMostDumps]; ///< the first `count` of them
};

void startWatch(DumpWatch& watch, const char* directory);

/// Opens the dumps that have begun since the last call, and sees their parameters.
void openNewDumps(DumpWatch& watch, const char* directory);

/// What all of them have grown to. It tells that a server is at work.
uint64_t totalSize(const DumpWatch& watch);

/// The whole dump of this report among them; else one that nobody can tell of, because it was deleted so
/// soon; else null. A dump that was deleted had been sent or was not wanted, and others that crash in the
/// same milliseconds are few.
const SeenDump* findDump(const DumpWatch& watch, const CrashPath& path);

} // namespace vantor::client
