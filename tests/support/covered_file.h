#pragma once

#include <string>

namespace vantor::test {

/// Puts another file in a file's place, for everybody in the test's namespaces, while the object lives. Only
/// inside runInNamespaces().
class CoveredFile {
public:
    /// Covered by "/dev/null" a file looks empty. Aborts the test program with a message when it cannot be
    /// covered.
    CoveredFile(std::string path, const std::string& cover);
    ~CoveredFile();
    CoveredFile(const CoveredFile&) = delete;
    CoveredFile& operator=(const CoveredFile&) = delete;

private:
    std::string m_path;
};

} // namespace vantor::test
