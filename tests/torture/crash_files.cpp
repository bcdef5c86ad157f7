#include "tests/torture/crash_files.h"

#include "client/minidump_file.h"
#include "tests/support/descriptor.h"
#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/mman.h>

namespace vantor::torture {

namespace {

constexpr size_t kNameSize = 36;

bool isWhole(const std::string& path) {
    const test::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    client::MinidumpCrash crash;
    return client::readMinidump(file.get(), &crash) == client::MinidumpState::Whole;
}

std::string listed(const char* label, const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += std::string(text.empty() ? "" : " ") + name;
    return text.empty() ? "" : std::string(" ") + label + ": " + text + ";";
}

} // namespace

CrashFiles readCrashFiles(const std::string& directory) {
    std::set<std::string> names;
    std::error_code error; // there may be no such directory
    for (const auto& entry : std::filesystem::directory_iterator(directory, error))
        names.insert(entry.path().filename());

    CrashFiles files;
    for (const std::string& name : names) {
        const std::string stem = name.substr(0, kNameSize);
        const std::string suffix = name.size() > kNameSize ? name.substr(kNameSize) : "";
        if (suffix == ".dmp" && names.contains(stem + ".params"))
            (isWhole(directory + "/" + name) ? files.pairs : files.broken_pairs).push_back(stem);
        else if (suffix == ".dmp")
            (isWhole(directory + "/" + name) ? files.whole_dumps : files.broken_dumps).push_back(stem);
        else if (suffix == ".params" && !names.contains(stem + ".dmp"))
            files.lone_params.push_back(stem);
        else if (suffix == ".dmp.tmp" || suffix == ".params.tmp")
            files.temporary_files.push_back(name);
        else if (suffix != ".params")
            files.others.push_back(name);
    }
    return files;
}

std::string describe(const CrashFiles& files) {
    const std::string text =
        listed("pairs", files.pairs) + listed("broken pairs", files.broken_pairs) +
        listed("whole dumps", files.whole_dumps) + listed("broken dumps", files.broken_dumps) +
        listed("lone parameters", files.lone_params) + listed("temporary files", files.temporary_files) +
        listed("others", files.others);
    return text.empty() ? " nothing" : text;
}

bool isWholeDump(const std::string& dump, int signal) {
    const test::Descriptor file(memfd_create("dump", MFD_CLOEXEC));
    client::MinidumpCrash crash;
    return write(file.get(), dump.data(), dump.size()) == static_cast<ssize_t>(dump.size()) &&
           client::readMinidump(file.get(), &crash) == client::MinidumpState::Whole &&
           crash.signal == static_cast<uint32_t>(signal);
}

} // namespace vantor::torture
