#pragma once

#include "client/wall_time.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace vantor::client {

/// What became of the runs of an application before this one that nobody has told of yet.
struct LastRun {
    enum class End {
        NothingKnown, ///< there was none, or it ended in order
        Crashed,      ///< at least one did
        Vanished,     ///< it did not end in order, and did not crash: it was killed, or the power failed
    };

    End end = End::NothingKnown;
    std::string
        report; ///< name of the newest crash's report, 36 characters; "": there is none, or it is unknown
    unsigned int crashes_in_the_last_hour = 0; ///< all of them, told of or not; ends at 100
    std::string error; ///< why this run cannot leave a marker, and what to do; "": it has one
};

/// Keeps book of the runs of an application, so that a run knows what became of the last one.
///
/// Each run has a file APPLICATION-PID-START in a directory, where START is the process's start in ticks: two
/// processes never share both numbers before the machine starts anew. It says "running" until end() removes
/// it, or "crashed" and the report's name once crash_mark.h has written that. The next run finds the files
/// of processes that have gone. Of several runs that begin at once, one is told of a crash. Crashed ones get
/// the suffix ".told" and stay for an hour, to be counted.
///
/// Processes that share the directory, and do not see each other, as in two containers, take each other for
/// gone. Without /proc, a process that has an earlier one's number is taken for that one.
///
/// One thread at a time. In a forked child it does nothing: the run is its parent's.
class RunMarker {
public:
    /// Touches nothing. `application` tells the runs of one application from those of others, as a rule by
    /// the name of its executable; a slash in it becomes "_", and 200 bytes of it count.
    RunMarker(const std::string& directory, const std::string& application);
    /// end().
    ~RunMarker();
    RunMarker(const RunMarker&) = delete;
    RunMarker& operator=(const RunMarker&) = delete;

    /// Marks this run as running, and looks at the earlier ones. Makes the directory.
    LastRun begin(WallTime now);

    /// The run ends in order. May be called again, and without begin().
    void end();

    /// The marker's path, for markCrashed(); also where there is no marker.
    const std::string& path() const { return m_path; }

private:
    const pid_t m_process;
    const std::string m_directory;
    const std::string m_application; // as in a file's name
    const std::string m_name;
    const std::string m_path;
};

} // namespace vantor::client
