#pragma once

#include <string>

namespace vantor::test {

/// Makes a file look empty to everybody in the test's namespaces while the object lives. Only inside
/// runInNamespaces().
class HiddenFile {
public:
    /// Aborts the test program with a message when the file cannot be hidden.
    explicit HiddenFile(std::string path);
    ~HiddenFile();
    HiddenFile(const HiddenFile&) = delete;
    HiddenFile& operator=(const HiddenFile&) = delete;

private:
    std::string m_path;
};

} // namespace vantor::test
