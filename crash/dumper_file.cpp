// How Breakpad's dumper writes its file: in place of the functions of the same names in its library, which
// seek and write for every piece. The bytes are the same.

#include "crash/dumper_file.h"

#include "crash/dump_in_progress.h"

#include "client/minidump_file_writer.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace vantor::crash {

bool DumpFile::copy(int descriptor, size_t position, const void* from, size_t size) {
    const char* bytes = static_cast<const char*>(from);
    while (size > 0 && m_is_good) {
        const size_t number = position / kBlockSize;
        const size_t start = position % kBlockSize;
        const size_t part = std::min(size, kBlockSize - start);
        if (number > m_number) {
            (void)flush(descriptor);
            m_number = number;
            m_used = 0;
        }
        if (number < m_number) {
            write(descriptor, position, bytes, part);
        } else {
            if (start > m_used)
                std::memset(m_block.data() + m_used, 0, start - m_used);
            std::memcpy(m_block.data() + start, bytes, part);
            m_used = std::max(m_used, start + part);
        }
        position += part;
        bytes += part;
        size -= part;
    }
    return m_is_good;
}

bool DumpFile::flush(int descriptor) {
    if (m_used > 0)
        write(descriptor, m_number * kBlockSize, m_block.data(), m_used);
    return m_is_good;
}

void DumpFile::write(int descriptor, size_t position, const char* from, size_t size) {
    if (m_is_good)
        m_is_good =
            pwrite(descriptor, from, size, static_cast<off_t>(position)) == static_cast<ssize_t>(size);
}

} // namespace vantor::crash

namespace google_breakpad {

// The file grows as ever, by Breakpad's Allocate(): that is how others see a dump go on.
bool MinidumpFileWriter::Copy(MDRVA position, const void* src, ssize_t size) {
    if (position + static_cast<size_t>(size) > size_)
        return false;
    if (vantor::crash::DumpInProgress* const dump = vantor::crash::DumpInProgress::current())
        return dump->file.copy(file_, position, src, static_cast<size_t>(size));
    return lseek(file_, position, SEEK_SET) == position &&
           write(file_, src, static_cast<size_t>(size)) == size;
}

bool MinidumpFileWriter::Close() {
    if (file_ == -1)
        return true;
    if (vantor::crash::DumpInProgress* const dump = vantor::crash::DumpInProgress::current())
        (void)dump->file.flush(file_); // WriteMinidump() looks at what has become of it
    if (ftruncate(file_, position_) != 0)
        return false;
    const bool is_closed = close(file_) == 0;
    file_ = -1;
    return is_closed;
}

} // namespace google_breakpad
