#pragma once

#include "client/annotation_error.h"
#include "client/log_ring.h"
#include "client/record_table.h"

#include <cstddef>
#include <memory>
#include <string_view>

namespace vantor::client {

/// An application's annotations: names with values that the crash server reads out of this process after a
/// crash, and adds to the report. A change is seen whole or not at all.
///
/// Lives as long as the process, once a server was told of the descriptor.
///
/// Any thread may call set(), clear() and log().add(). They allocate nothing and take about a tenth of a
/// microsecond. Threads take turns; one that has to wait for longer than a second gets the error Busy, so
/// that no caller hangs. A forked child has a copy of its own, and may change it at once. Signal handlers may
/// call them, too, but get Busy when they interrupted one of them.
class Annotations {
public:
    static constexpr size_t kDefaultCapacity = 64;
    static constexpr size_t kMostCapacity = 1024;

    struct Options {
        size_t capacity = kDefaultCapacity; ///< how many annotations there can be, 1 to kMostCapacity
        size_t log_lines = 0;               ///< besides these: 0 to LogRing::kMostLines
    };

    /// Maps all memory that is ever needed. On an error, Capacity or Memory, `*out` stays as it is.
    [[nodiscard]] static AnnotationError create(const Options& options, std::unique_ptr<Annotations>* out);

    /// Gives `name` a value, the only one from then on. Names have 1 to 63 bytes and values 1 to 255, without
    /// line feed and NUL; nothing is ever cut. "guid", "time", "disable_upload", "interactive" and the names
    /// of log lines are refused.
    [[nodiscard]] AnnotationError set(std::string_view name, std::string_view value);
    /// Takes `name` out; it need not be there. The same names are refused.
    [[nodiscard]] AnnotationError clear(std::string_view name);

    /// For this library's own calls: the same with the four names that mean something to the server.
    [[nodiscard]] AnnotationError setReserved(std::string_view name, std::string_view value);
    [[nodiscard]] AnnotationError clearReserved(std::string_view name);

    /// The last lines of the application's log.
    LogRing& log() { return m_log; }

    /// For a crash handler, before it asks for the dump: from the return on nothing changes until thaw(), and
    /// setters get the error Frozen at once, one that is in its middle included. Waits for nobody, whatever
    /// any thread was doing. Freezes add up, each has its own thaw(). A forked child starts without.
    void freeze() { m_table->freeze(); }
    void thaw() { m_table->thaw(); }

    /// For the one who has frozen them: adds a fact of this moment, cut where an annotation ends, and takes
    /// all of them back before the thaw.
    void addFact(std::string_view name, std::string_view value);
    void dropFacts() { m_table->dropFacts(); }

    /// What the server is told in the hand-shake; it never moves.
    const crash::CustomDataDescriptor* descriptor() const { return m_table->descriptor(); }

private:
    explicit Annotations(std::unique_ptr<RecordTable> table);
    AnnotationError setRecord(const crash::CustomDataEntry& record);
    AnnotationError clearRecord(const crash::CustomDataEntry& record);

    const std::unique_ptr<RecordTable> m_table;
    LogRing m_log;
};

} // namespace vantor::client
