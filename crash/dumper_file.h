#pragma once

#include <array>
#include <cstddef>

namespace vantor::crash {

/// The bytes of a dump on their way to its file: collected in memory, one block of the file at a time.
/// Breakpad writes in the order of the file, in pieces as small as a letter, and fills in rows of tables that
/// come earlier; what belongs to an earlier block is written at once.
///
/// For one thread. The descriptor is the caller's, and always the same one.
class DumpFile {
public:
    /// A page that is touched for the first time costs more than a system call: few pages, used again.
    static constexpr size_t kBlockSize = 64 * size_t{1024};

    /// Takes bytes for `position`. Returns false once something could not be written, and from then on.
    bool copy(int descriptor, size_t position, const void* from, size_t size);
    /// Writes what has been collected; bytes in between that were never copied are zeros.
    bool flush(int descriptor);

    /// False once something could not be written.
    bool isGood() const { return m_is_good; }

private:
    void write(int descriptor, size_t position, const char* from, size_t size);

    std::array<char, kBlockSize> m_block; ///< touched as far as it is used
    size_t m_number = 0;                  ///< of the block in the file
    size_t m_used = 0;                    ///< its bytes up to the last one that was copied
    bool m_is_good = true;
};

} // namespace vantor::crash
