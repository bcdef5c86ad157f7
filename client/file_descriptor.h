#pragma once

#include <unistd.h>
#include <utility>

namespace vantor::client {

/// Owns the descriptor of a file and closes it.
class FileDescriptor {
public:
    /// Takes the result of an open() over; -1: there is none.
    explicit FileDescriptor(int number) : m_number(number) {}
    ~FileDescriptor() { (void)close(); } // nothing was written, or the caller has closed it
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return m_number; }
    bool isOpen() const { return m_number != -1; }

    /// Closes it now. False, and errno, when something that was written did not reach the file.
    bool close() { return !isOpen() || ::close(std::exchange(m_number, -1)) == 0; }

private:
    int m_number;
};

} // namespace vantor::client
