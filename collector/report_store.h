#pragma once

#include "collector/rejection.h"
#include "collector/temporary_file.h"
#include "common/mutex.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace vantor::collector {

/// A report's parameters: values by their names.
using Params = std::map<std::string, std::string>;

/// Whether a text is the name of a report: 36 characters, each a hexadecimal digit or a dash. The dumper's
/// GUIDs are not canonical ones. Nothing else ever becomes a path.
bool isReportName(std::string_view text);

/// A report that is stored, and where its files are.
struct Report {
    std::string name;
    std::string dump_path;
    std::string params_path;
    std::string stack_path; ///< where the stack trace is, or is going to be
    bool is_walked = false; ///< it is there
};

/// The reports of a collector, as plain files in one data directory:
///
///     incoming/               what is being received, under names of no meaning
///     reports/ab/cd/NAME.dmp, NAME.params, NAME.stack
///
/// ab and cd are the first two pairs of characters of NAME. A report is there when both its dump and its
/// parameters are; its stack trace comes last.
///
/// Any thread may call, at any time after recover(). Calls that store may wait for the disk. The other calls
/// take no notice of whoever deletes files from outside: what has gone is not there.
class ReportStore {
public:
    /// Touches nothing yet. `directory` belongs to one store at a time. `keep_free`: bytes of its file system
    /// that are left to others; with fewer, nothing is received.
    explicit ReportStore(std::string directory, uint64_t keep_free = 0);
    ~ReportStore();
    ReportStore(const ReportStore&) = delete;
    ReportStore& operator=(const ReportStore&) = delete;

    /// To be called once, before anything else: makes the directories if need be, deletes what was being
    /// received when the last collector ended, and halves of reports, and looks what is there. Returns why
    /// the directory cannot be used, in a sentence; nothing when all is well. Waits up to ten seconds for
    /// another collector to leave the directory.
    std::optional<std::string> recover();

    /// A file to receive a dump in; null, and the reason in errno, when there is none to be had.
    std::unique_ptr<TemporaryFile> newIncomingFile() const;

    /// Stores a report; returns when it will outlast a loss of power. `dump` comes from newIncomingFile(), is
    /// complete, and is moved if it is needed. No name among `params` and no value is empty or holds a line
    /// feed. `name` is a report's name.
    ///
    /// A report that is stored already keeps its dump, and the parameters of which there are more; the first
    /// ones when there are as many. Other parameters than before take the stack trace away, which shows them.
    ///
    /// When the disk is full or fails: NoStorage, and the store is as it was before; but a report whose files
    /// are in place when the disk fails stays, and is confirmed to who sends it again.
    std::optional<Rejection> commit(const std::string& name, TemporaryFile& dump, const Params& params);

    /// Empty for a name that is none, or not that of a report which is there.
    std::optional<Report> find(const std::string& name) const;
    /// Up to `count` reports, those that arrived last first.
    std::vector<Report> newest(size_t count) const;
    /// The names of the reports without a stack trace, those that arrived last first.
    std::vector<std::string> notWalked() const;
    /// Empty when there is no such report, or its parameters cannot be read.
    std::optional<Params> params(const std::string& name) const;

    /// A report's stack trace, or its first `most_bytes`; empty as long as there is none.
    std::optional<std::string> stack(const std::string& name, int64_t most_bytes = INT64_MAX) const;

    /// Gives a report its stack trace, in one step, in the place of one that it had. `shown` are the
    /// parameters that the text was made with: false, and nothing is stored, when the report has others by
    /// now, since it then has to be walked again. False also when there is no such report, or no room.
    bool storeStack(const std::string& name, const std::string& text, const Params& shown);

private:
    std::vector<std::string> arrivalsBefore(size_t passed) const;
    std::string directoryOf(const std::string& name) const;
    Report reportOf(const std::string& name) const;
    bool place(const std::string& name, TemporaryFile& dump, TemporaryFile& params_file, const Params& params)
        VANTOR_REQUIRES(m_mutex);
    bool makeDirectories(const std::string& name) const;
    bool syncDirectories(const std::string& name) const;
    void removeDirectories(const std::string& name) const;
    std::optional<std::string> makeLayout();
    void emptyIncoming() const;
    std::error_code findReports();
    std::string unusable(const std::string& reason) const;

    const std::string m_directory;
    const std::string m_incoming;
    const std::string m_reports;
    const uint64_t m_keep_free;
    int m_lock = -1; // the descriptor of m_incoming, locked against other collectors

    mutable Mutex m_mutex;                                          // no two threads change reports at once
    std::vector<std::string> m_arrivals VANTOR_GUARDED_BY(m_mutex); // names, the oldest first; some have gone
};

} // namespace vantor::collector
