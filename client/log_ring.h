#pragma once

#include "client/annotation_error.h"
#include "client/record_table.h"

#include <cstddef>
#include <string_view>

namespace vantor::client {

/// The last lines of a log, as the annotations "log_1", the oldest, to "log_n", the newest. A new line moves
/// all of them in one step, so that a report has the lines before it or the lines with it.
///
/// They are the fixed records of a table, which outlives the ring. A line that is not there yet is an empty
/// record, which the server leaves out.
class LogRing {
public:
    static constexpr size_t kMostLines = 99;
    /// What one line can take in the parameters file. It is set aside, so that lines always have room.
    static constexpr size_t kMostBytesPerLine = sizeof("log_99\n") - 1 + 255 + 1;

    /// Before anybody else uses the table.
    explicit LogRing(RecordTable& table);

    /// Adds a line of 1 to 255 bytes, without line feed and NUL; the oldest goes when there is no room. A
    /// longer line is the error ValueTooLong: cut it where it can be cut. Any thread; allocates nothing.
    /// Costs a copy of all lines.
    [[nodiscard]] AnnotationError add(std::string_view line);

private:
    RecordTable& m_table;
};

} // namespace vantor::client
