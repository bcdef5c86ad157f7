#pragma once

#include <dirent.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace vantor::client {

/// An open directory, by which its files are reached whatever becomes of its path. Close-on-exec.
///
/// Others may write to it, so that a name can stand for anything: links are never followed, and a pipe or a
/// device is not opened. Any thread, one at a time.
class Directory {
public:
    explicit Directory(const std::string& path);

    /// The error of opening it; 0: it is open, and the calls below may be used.
    int error() const { return m_error; }

    /// For openat() and the like. It stays the object's.
    int descriptor() const { return dirfd(m_stream.get()); }

    /// All names but "." and "..", in no order. To be called once.
    std::vector<std::string> names();

    /// What a name stands for; false when it stands for nothing, or cannot be looked at.
    bool look(const std::string& name, struct stat* status) const;

    /// Deletes a file's name. False, and errno, when it could not.
    bool remove(const std::string& name) const;

private:
    struct Closer {
        void operator()(DIR* stream) const { (void)closedir(stream); } // it was only read
    };

    std::unique_ptr<DIR, Closer> m_stream;
    int m_error = 0;
};

/// Creates a directory and whatever of its parents is missing, for the owner alone: the crash server, which
/// would leave that to the process's mask, then finds them made. True when it exists afterwards; otherwise
/// errno says why not.
bool makeDirectories(const std::string& path);

} // namespace vantor::client
