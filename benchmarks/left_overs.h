#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

/// The name of a pair, without extension.
inline std::string nameOfPair(int number) {
    char name[48] = {};
    (void)snprintf(name, sizeof(name), "%08x-0000-4000-a000-00000000-0000000",
                   static_cast<unsigned int>(number));
    return std::string(name, 36);
}

inline bool isParams(const std::filesystem::path& path) {
    return path.extension() == ".params";
}

/// Sees to it that `directory` holds this many pairs with dumps of `bytes` each, and nothing else.
inline void leavePairs(const std::filesystem::path& directory, int pairs, uint64_t bytes) {
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    std::string dump(bytes, '\0');
    for (size_t i = 0; i < dump.size(); ++i) // not all alike, as memory is not
        dump[i] = static_cast<char>(i * 2654435761U >> 13);
    for (int i = 0; i < pairs; ++i) {
        const std::string path = directory / nameOfPair(i);
        std::ofstream(path + ".dmp", std::ios::binary) << dump;
        std::ofstream(path + ".params")
            << "process\nbenchmark\nproduct\nbenchmark\ntime\n1700000000123456789\n"
            << "version\n1.2.3\n";
    }
}
