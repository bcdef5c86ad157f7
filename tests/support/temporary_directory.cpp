#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace vantor::test {

TemporaryDirectory::TemporaryDirectory()
    : m_path((std::filesystem::temp_directory_path() / "vantor-test-XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) {
        perror(m_path.c_str());
        abort();
    }
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored; // what a test made unremovable, the test has to account for
    std::filesystem::remove_all(m_path, ignored);
}

std::vector<std::string> TemporaryDirectory::names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string readFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

bool exists(const std::string& path) {
    return std::filesystem::exists(path);
}

} // namespace vantor::test
