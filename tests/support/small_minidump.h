#pragma once

#include "google_breakpad/common/minidump_format.h"

#include <string>

namespace vantor::test {

/// The smallest minidump with something in it: two streams of 8 bytes each at the end, of types that no
/// reader looks into. A test changes what it likes before it takes the bytes.
struct SmallMinidump {
    MDRawHeader header = {MD_HEADER_SIGNATURE, MD_HEADER_VERSION, 2, sizeof(MDRawHeader), 0, 0, 0};
    MDRawDirectory directory[2] = {{MD_LAST_RESERVED_STREAM + 1, {8, kStreams}},
                                   {MD_LAST_RESERVED_STREAM + 2, {8, kStreams + 8}}};
    char streams[16] = {'f', 'i', 'r', 's', 't', '.', '.', '.', 's', 'e', 'c', 'o', 'n', 'd', '.', '.'};

    std::string bytes() const {
        std::string text(reinterpret_cast<const char*>(&header), sizeof(header));
        text.append(reinterpret_cast<const char*>(directory), sizeof(directory));
        return text.append(streams, sizeof(streams));
    }

    static constexpr uint32_t kStreams = sizeof(MDRawHeader) + 2 * sizeof(MDRawDirectory);
    static constexpr uint32_t kSize = kStreams + 16;
};

} // namespace vantor::test
