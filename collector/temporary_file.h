#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace vantor::collector {

/// A new file under a name that nobody knows, which goes with the object unless it was moved to its place.
/// Readable and writable by its owner alone, and not inherited by programs that are started.
///
/// Calls that fail leave the reason in errno. One thread at a time uses an object.
class TemporaryFile {
public:
    /// Makes the file in `directory`; null when it cannot.
    static std::unique_ptr<TemporaryFile> create(const std::string& directory);
    /// Closes the file, and deletes it if it is still where it was made.
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    /// Open for reading and writing for as long as the object lives.
    int descriptor() const { return m_descriptor; }

    /// Appends all of `bytes`; false when the file could not take them all.
    bool write(std::string_view bytes);
    /// Returns when what was written will outlast a loss of power; false when that cannot be had.
    bool sync();
    /// Gives the file its lasting name, on the same file system, in the place of a file that has it. The
    /// name outlasts a loss of power once its directory is synced.
    bool moveTo(const std::string& path);

private:
    TemporaryFile(std::string path, int descriptor);

    std::string m_path; // "" once moved
    const int m_descriptor;
};

} // namespace vantor::collector
