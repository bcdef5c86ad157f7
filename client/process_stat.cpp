#include "client/process_stat.h"

#include "client/file_descriptor.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace vantor::client {

std::optional<ProcessStat> readProcessStat(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 2048> text = {}; // some fifty numbers and a short name
    if (!file.isOpen() || read(file.get(), text.data(), text.size() - 1) <= 0)
        return std::nullopt;
    const char* const name_end = strrchr(text.data(), ')'); // the name may have anything in it
    if (name_end == nullptr)
        return std::nullopt;

    char state = 0;
    long threads = 0;
    ProcessStat stat;
    if (sscanf(name_end,
               ") %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %ld %*s %" SCNu64,
               &state, &threads, &stat.start_ticks) != 3)
        return std::nullopt;
    stat.has_ended = (state == 'Z' || state == 'X') && threads <= 1; // the first thread may end before others
    return stat;
}

} // namespace vantor::client
