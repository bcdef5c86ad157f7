#pragma once

#include <cstdint>
#include <string>

namespace vantor::test {

/// A file system of little room, in memory, at a directory's place while the object lives. Only inside
/// runInNamespaces().
class SmallDisk {
public:
    /// `limits` as the kernel has them: "size=64k", "nr_inodes=10". Makes the directory if need be; aborts
    /// the test program with a message when it cannot mount there.
    SmallDisk(std::string directory, const std::string& limits);
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    /// Puts a file there that leaves this many bytes free, in whole pages.
    void fillBut(uint64_t bytes) const;

private:
    std::string m_directory;
};

} // namespace vantor::test
