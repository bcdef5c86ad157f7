#pragma once

#include <cstddef>
#include <string>
#include <sys/stat.h>

namespace vantor::collector {

/// The serialised form of a symbol file (FILE.fast beside FILE.sym): what Breakpad's fast resolver uses as it
/// stands in memory, so that a walk maps it and reads the few pages that it needs.
///
/// The file is a header and Breakpad's data, in this machine's byte order. The header says how long the data
/// is, and which symbol file it was made of, by number, size and time. A form that was cut, was made of
/// other symbols or by another version is therefore not taken for one. The data is not read to check it: that
/// would cost more than the walk. A form without data says that these symbols cannot be serialised.
///
/// Maps the form for as long as the object lives. One thread at a time uses it.
class SerialisedSymbols {
public:
    enum class State {
        NoSymbols, ///< there is no symbol file
        NotMade,   ///< there is one, and no form that fits it
        Unusable,  ///< there is one, and it cannot be serialised
        Usable,    ///< data() and size() are set
    };

    /// Throws std::bad_alloc when there is no address space for it.
    SerialisedSymbols(const std::string& symbol_path, const std::string& serialised_path);
    ~SerialisedSymbols();
    SerialisedSymbols(const SerialisedSymbols&) = delete;
    SerialisedSymbols& operator=(const SerialisedSymbols&) = delete;

    State state() const { return m_state; }
    /// Breakpad's data: read only, although Breakpad's interface wants a plain pointer; the last byte is NUL.
    char* data() const;
    size_t size() const;

private:
    State m_state = State::NoSymbols;
    char* m_mapping = nullptr; // null when nothing is mapped
    size_t m_mapping_bytes = 0;
};

/// What became of an attempt to make the form.
enum class Serialised {
    Made,
    Unusable, ///< another attempt would fail as well
    NotNow,   ///< the machine was short of something, or the attempt was interrupted
};

/// Parses a symbol file and writes its form to `output`, an empty file. Trusts the symbols with memory, time
/// and the life of the process: meant for a child process.
Serialised serialiseSymbols(const std::string& symbol_path, int output);

/// Writes the form that says that the symbols of this status cannot be serialised. False when it could not be
/// written.
bool writeUnusableForm(const struct stat& symbols, int output);

} // namespace vantor::collector
