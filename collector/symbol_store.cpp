#include "collector/symbol_store.h"

#include "collector/descriptor.h"
#include "common/file.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

namespace vantor::collector {

namespace {

constexpr mode_t kOwnerOnly = S_IRWXU;

/// The longest first line that can name a valid module, and some room for the names of systems.
constexpr size_t kMostFirstLineBytes = 512;

constexpr const char* kNewFile = ".new-"; // and six more characters, directly in the store's directory

/// A new file in a store, which takes the place of another one or goes with the object.
class ReplacementFile {
public:
    explicit ReplacementFile(const std::string& store)
        : m_path(store + "/" + kNewFile + "XXXXXX"),
          m_descriptor(mkostemp(m_path.data(), O_CLOEXEC)) {}
    ~ReplacementFile() {
        if (m_descriptor.isOpen() && !m_is_placed)
            (void)File::remove(m_path);
    }
    ReplacementFile(const ReplacementFile&) = delete;
    ReplacementFile& operator=(const ReplacementFile&) = delete;

    bool isOpen() const { return m_descriptor.isOpen(); }
    int descriptor() const { return m_descriptor.get(); }
    /// False when it is not at its place, or may be lost with the machine's power.
    bool takePlaceOf(const std::string& path, const std::string& directory) {
        if (fsync(descriptor()) != 0 || rename(m_path.c_str(), path.c_str()) != 0)
            return false;

        m_is_placed = true;
        const Descriptor parent(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return parent.isOpen() && fsync(parent.get()) == 0;
    }

private:
    std::string m_path;
    Descriptor m_descriptor;
    bool m_is_placed = false;
};

std::string parentOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

/// Makes a directory whose parent exists, and sees to it that its name lasts.
bool makeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), kOwnerOnly) != 0 && errno != EEXIST)
        return false;

    const Descriptor parent(open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return parent.isOpen() && fsync(parent.get()) == 0;
}

/// Copies from the current position to the end. False when either file fails.
bool copyRest(int from, int to) {
    std::array<char, 65'536> piece;
    while (true) {
        const ssize_t count = read(from, piece.data(), piece.size());
        if (count <= 0)
            return count == 0;
        if (write(to, piece.data(), static_cast<size_t>(count)) != count)
            return false; // regular files are written in part only when the disk is full
    }
}

std::optional<SymbolModule> moduleOf(int symbols) {
    std::array<char, kMostFirstLineBytes> start;
    const ssize_t count = pread(symbols, start.data(), start.size(), 0);
    if (count <= 0)
        return std::nullopt;

    const std::string_view text(start.data(), static_cast<size_t>(count));
    const size_t end = text.find('\n');
    if (end == std::string_view::npos)
        return std::nullopt;
    return moduleOfSymbolFile(text.substr(0, end));
}

Rejection noStorage() {
    return {Rejection::Kind::NoStorage, std::string("The symbols cannot be stored now: ") + strerror(errno)};
}

} // namespace

void SymbolStore::removeLeftOvers() {
    std::vector<std::string> names;
    (void)File::listFiles(m_directory, false, &names,
                          nullptr); // there is no directory before the first symbols
    for (const std::string& name : names) {
        if (name.starts_with(kNewFile))
            (void)File::remove(
                File::joinPath(m_directory, name)); // what stays is tried again at the next start
    }
}

bool SymbolStore::has(const SymbolModule& module) const {
    struct stat status = {};
    return stat(symbolPath(module).c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string SymbolStore::symbolPath(const SymbolModule& module) const {
    if (!isValid(module))
        return "";
    return m_directory + "/" + module.file + "/" + module.id + "/" + module.file + ".sym";
}

std::string SymbolStore::serialisedPath(const SymbolModule& module) const {
    if (!isValid(module))
        return "";
    return m_directory + "/" + module.file + "/" + module.id + "/" + module.file + ".fast";
}

std::optional<Rejection> SymbolStore::add(const std::string& path, SymbolModule* module) {
    const Descriptor symbols(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!symbols.isOpen())
        return noStorage();

    const std::optional<SymbolModule> named = moduleOf(symbols.get());
    if (!named)
        return Rejection{
            Rejection::Kind::Bad,
            "The symbol file does not begin with a line MODULE SYSTEM CPU ID NAME that names a module"};

    const std::string place = symbolPath(*named);
    const std::string directory = parentOf(place);
    if (!File::recursivelyCreateDir(m_directory, kOwnerOnly) || !makeDirectory(parentOf(directory)) ||
        !makeDirectory(directory))
        return noStorage();

    ReplacementFile file(m_directory);
    if (!file.isOpen() || !copyRest(symbols.get(), file.descriptor()) || !file.takePlaceOf(place, directory))
        return noStorage();

    *module = *named;
    return std::nullopt;
}

SerialisedSymbols::State SymbolStore::stateOf(const SymbolModule& module) const {
    if (!isValid(module))
        return SerialisedSymbols::State::NoSymbols;
    return SerialisedSymbols(symbolPath(module), serialisedPath(module)).state();
}

Serialised
SymbolStore::serialise(const SymbolModule& module,
                       const std::function<Serialised(const std::string& symbol_path, int output)>& write) {
    const std::string symbol_path = symbolPath(module);
    const std::string directory = parentOf(symbol_path);
    struct stat symbols = {}; // as they are before: those that replace them meanwhile get no blame
    ReplacementFile file(m_directory);
    if (!file.isOpen() || stat(symbol_path.c_str(), &symbols) != 0)
        return Serialised::NotNow;

    const Serialised result = write(symbol_path, file.descriptor());
    if (result == Serialised::NotNow)
        return result;
    if (result == Serialised::Unusable &&
        (ftruncate(file.descriptor(), 0) != 0 || lseek(file.descriptor(), 0, SEEK_SET) != 0 ||
         !writeUnusableForm(symbols, file.descriptor())))
        return Serialised::NotNow;
    return file.takePlaceOf(serialisedPath(module), directory) ? result : Serialised::NotNow;
}

} // namespace vantor::collector
