#pragma once

#include <string>
#include <vector>

namespace vantor::test {

/// A new directory that goes, with all that is in it, when the object does.
class TemporaryDirectory {
public:
    /// Below $TMPDIR, or /tmp. Aborts the test program with a message when it cannot be made.
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return m_path; }
    /// The path of `name` in the directory.
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    /// The names in the directory, sorted.
    std::vector<std::string> names() const;

private:
    std::string m_path;
};

/// Creates or replaces a file.
void writeFile(const std::string& path, const std::string& content);
/// A file's content; "" for a file that cannot be read.
std::string readFile(const std::string& path);
bool exists(const std::string& path);

} // namespace vantor::test
