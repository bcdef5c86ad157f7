#pragma once

#include <cstddef>
#include <string>
#include <sys/stat.h>

namespace vantor::crash {

/// The last file of a module that Breakpad looked into, mapped from `offset` to its end: it asks for the same
/// one four times in a row. For one thread.
class LastModule {
public:
    LastModule() = default;
    ~LastModule();
    LastModule(const LastModule&) = delete;
    LastModule& operator=(const LastModule&) = delete;

    /// Null when it is another one. To be given back.
    void* borrow(const char* path, size_t offset);
    /// The same for a file that is open, which may have several paths.
    void* borrow(const struct stat& file, size_t offset);
    /// Takes over a mapping that is in use, and ends the one before; does nothing while that is in use
    /// itself.
    void keep(const char* path, const struct stat& file, size_t offset, void* data);
    /// False when this is not ours.
    bool giveBack(const void* data);

    size_t size() const { return m_size; }

private:
    std::string m_path;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    size_t m_offset = 0;
    void* m_data = nullptr;
    size_t m_size = 0;
    int m_users = 0;
};

} // namespace vantor::crash
