#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vantor {

/// An open regular file, always held by shared ownership, and the path operations that go with it.
///
/// What is written is kept in memory and goes out in one piece when size(), seek(), read(), close() or the
/// end of the object needs it, so that another process never sees half a text. Reading and writing share one
/// position. Files are not locked against other processes.
///
/// One thread at a time uses an object; the static operations may be called from any thread.
class File {
public:
    /// Opens `path` in a mode of the C library's ("r", "r+", "w", "w+", "a" or "a+", with or without "b").
    /// Returns null on failure, and for whatever is no regular file: a directory, a symbolic link, or a pipe
    /// or device, which is not waited for. A new file can be read and written by its owner alone. With
    /// `close_on_exec` no program that is started inherits it.
    ///
    /// When descriptors run short, the process's soft limit is raised to the hard one (see
    /// descriptor_limit.h).
    static std::shared_ptr<File> open(const std::string& path, const std::string& mode, bool close_on_exec);

    /// The path without its last extension, the dot included: "a/b.dmp" gives "a/b". A dot in a directory's
    /// name, or at the beginning of a file's, starts no extension.
    static std::string stripExtension(const std::string& path);
    /// The last extension without its dot: "params" for "a/b.params"; "" when there is none.
    static std::string extension(const std::string& path);
    /// The last component: "b.dmp" for "a/b.dmp".
    static std::string basename(const std::string& path);
    /// `a` and `b` with exactly one separator between them; the other one when either is empty.
    static std::string joinPath(const std::string& a, const std::string& b);

    /// Replaces `*files` by the bare names of what stands directly in `dir` and is no directory, and
    /// `*directories` (null when not wanted) by the names of the directories, "." and ".." left out. In the
    /// directory's own order, or in byte order when `sorted`. False, and empty lists, when the directory
    /// cannot be read.
    static bool listFiles(const std::string& dir, bool sorted, std::vector<std::string>* files,
                          std::vector<std::string>* directories);
    /// Deletes a file's name; false when it could not. Directories are not deleted.
    static bool remove(const std::string& path);
    /// Creates `path` and whatever of its parents is missing, with these permission bits less the process's
    /// mask. True when the directory exists afterwards.
    static bool recursivelyCreateDir(const std::string& path, int mode);

    /// The path that the file was opened with, also after close().
    virtual const std::string& path() const = 0;
    /// Writes at the position. False when the file cannot take it; what did not go out is then forgotten.
    virtual bool write(const std::string& text) = 0;
    /// Replaces `*out` by up to `count` bytes from the position on, fewer only at the file's end or at an
    /// error. Returns how many bytes those are, or -1 at an error.
    virtual int64_t read(std::string* out, int64_t count) = 0;
    /// Moves the position to `offset` bytes from the file's start; false when it cannot.
    virtual bool seek(int64_t offset) = 0;
    /// The file's size in bytes, with what was just written; -1 at an error. Does not depend on the position.
    virtual int64_t size() = 0;
    /// Closes the file and keeps the object; false when something that was written did not reach the file.
    /// Afterwards, and at a second call, every operation but path() fails.
    virtual bool close() = 0;

    virtual ~File() = default;

protected:
    File() = default;
    File(const File&) = delete;
    File& operator=(const File&) = delete;
};

/// An open directory: its files are opened without a walk along its path for each. One thread at a time uses
/// an object.
class Directory {
public:
    /// Never fails: in a directory that cannot be opened, no file can.
    explicit Directory(const std::string& path);
    ~Directory();
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    /// File::open() for the file of this name: what is opened is the same, and so is its path().
    std::shared_ptr<File> open(const std::string& name, const std::string& mode, bool close_on_exec) const;

private:
    const std::string m_path;
    const int m_descriptor; // -1 where it could not be opened
};

} // namespace vantor
