#pragma once

#include "client/annotation_error.h"
#include "client/setter_lock.h"
#include "crash/custom_data_entry.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <sys/types.h>

namespace vantor::client {

/// Records that a crash server may read at any instant, and finds whole: before a change or after it, never
/// in its middle.
///
/// There are two arrays. The descriptor shows one of them; a change is written into the other, the spare, and
/// then shown with one instruction. The spare lacks the change before; it is brought up to date by copying
/// the few records of that change, not the whole array.
///
/// All memory is mapped at the start. What setters keep for themselves is wiped by a fork, and made again
/// from the records by the child's first change; so the child does not care what another thread was doing.
///
/// Any thread may make changes, one at a time. The destructor is for tables that no server knows of.
class RecordTable {
public:
    /// A table with room for `capacity` records. The first `fixed_count` are there from the start, empty, and
    /// stay where they are. Null when there is no memory for it.
    static std::unique_ptr<RecordTable> map(size_t capacity, size_t fixed_count);
    ~RecordTable();
    RecordTable(const RecordTable&) = delete;
    RecordTable& operator=(const RecordTable&) = delete;

    size_t capacity() const { return m_capacity; }
    size_t fixedCount() const { return m_fixed_count; }
    /// What the server is told in the hand-shake. It never moves, and is at the same address in forked
    /// children.
    const crash::CustomDataDescriptor* descriptor() const { return m_descriptor; }

    /// See client/published_descriptor.h.
    void freeze();
    void thaw();

    // For the one who has frozen the table, before anybody reads it: facts that only the moment of a report
    // tells, shown behind the records.

    static constexpr size_t kMostFacts = 8;
    /// An empty record that is shown from now on; null when there is no room.
    crash::CustomDataEntry* addFact();
    /// Those that this process has added. In a forked child the facts of its parent are records like others.
    void dropFacts();

    /// One change, from the setters' lock on. Check error() first: with an error, nothing else may be called.
    class Change {
    public:
        explicit Change(RecordTable& table);
        ~Change();
        Change(const Change&) = delete;
        Change& operator=(const Change&) = delete;

        /// None, Frozen or Busy.
        AnnotationError error() const { return m_error; }
        /// The records as they are shown.
        std::span<const crash::CustomDataEntry> shown() const;
        /// Where the record of this name is shown; shown().size() when there is none. `record.name` is filled
        /// with zeroes after its end, like every name in the table.
        size_t find(const crash::CustomDataEntry& record) const;
        /// What the records after the fixed ones take in the parameters file.
        size_t textBytes() const;

        /// `count` records from `first` on, to be written: as they are shown, as far as they are. Once a
        /// change, and nothing else is written.
        std::span<crash::CustomDataEntry> edit(size_t first, size_t count);
        /// Shows what was written, as the first `count` records. None or Frozen.
        AnnotationError publish(size_t count, size_t text_bytes);

    private:
        RecordTable& m_table;
        const AnnotationError m_error;
    };

private:
    struct Bookkeeping;
    struct Layout;

    RecordTable(char* memory, const Layout& layout, size_t capacity, size_t fixed_count);
    const crash::CustomDataEntry* shown() const;
    crash::CustomDataEntry* spare() const;
    void copyToSpare(size_t first, size_t count);
    void recover();

    const size_t m_size; // of the mapping
    const size_t m_capacity;
    const size_t m_fixed_count;
    crash::CustomDataDescriptor* const m_descriptor; // the mapping's beginning
    crash::CustomDataEntry* const m_arrays[2];
    Bookkeeping* const m_bookkeeping;
    uint32_t* const m_digests; // of the names, wiped with the bookkeeping
    uint32_t m_fact_count = 0;
    pid_t m_fact_process = 0; // that added them
};

} // namespace vantor::client
