#include "collector/serialised_symbols.h"

#include "collector/descriptor.h"

#include "processor/module_serializer.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>

namespace vantor::collector {

namespace {

/// The digit at the end changes with our header and with Breakpad's data.
constexpr std::array<char, 8> kMagic = {'V', 'F', 'A', 'S', 'T', 'S', 'Y', '1'};

struct Header {
    std::array<char, 8> magic = kMagic;
    uint64_t symbol_inode = 0; ///< file systems have clocks that stand still for milliseconds
    uint64_t symbol_bytes = 0;
    int64_t symbol_seconds = 0;
    int64_t symbol_nanoseconds = 0;
    uint64_t data_bytes = 0; ///< 0: the symbols cannot be serialised

    friend bool operator==(const Header&, const Header&) = default;
};
static_assert(sizeof(Header) == 48, "no padding: the bytes in the file are the members");

/// Breakpad's offsets have 32 bits.
constexpr size_t kMostDataBytes = std::numeric_limits<uint32_t>::max() - 1;

Header headerFor(const struct stat& symbols, size_t data_bytes) {
    Header header;
    header.symbol_inode = symbols.st_ino;
    header.symbol_bytes = static_cast<uint64_t>(symbols.st_size);
    header.symbol_seconds = symbols.st_mtim.tv_sec;
    header.symbol_nanoseconds = symbols.st_mtim.tv_nsec;
    header.data_bytes = data_bytes;
    return header;
}

bool writeAll(int output, const char* bytes, size_t count) {
    while (count > 0) {
        const ssize_t written = ::write(output, bytes, count);
        if (written == -1 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        bytes += written;
        count -= static_cast<size_t>(written);
    }
    return true;
}

bool writeForm(int output, const Header& header, const char* data) {
    std::array<char, sizeof(Header)> bytes = {};
    std::memcpy(bytes.data(), &header, sizeof(header));
    return writeAll(output, bytes.data(), bytes.size()) && writeAll(output, data, header.data_bytes);
}

std::optional<std::string> readAll(int descriptor, size_t count) {
    std::string text(count, '\0');
    size_t position = 0;
    while (position < count) {
        const ssize_t got = ::read(descriptor, text.data() + position, count - position);
        if (got == -1 && errno == EINTR)
            continue;
        if (got <= 0)
            return std::nullopt;
        position += static_cast<size_t>(got);
    }
    return text;
}

Descriptor openToRead(const std::string& path) {
    return Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

} // namespace

SerialisedSymbols::SerialisedSymbols(const std::string& symbol_path, const std::string& serialised_path) {
    struct stat symbols = {};
    if (stat(symbol_path.c_str(), &symbols) != 0 || !S_ISREG(symbols.st_mode))
        return;

    m_state = State::NotMade;
    const Descriptor form = openToRead(serialised_path);
    struct stat status = {};
    if (!form.isOpen() || fstat(form.get(), &status) != 0)
        return;

    Header header;
    const auto form_bytes = static_cast<size_t>(status.st_size);
    if (pread(form.get(), &header, sizeof(header), 0) != sizeof(header) ||
        header != headerFor(symbols, form_bytes - sizeof(header)))
        return;

    m_state = State::Unusable;
    if (header.data_bytes == 0)
        return;

    void* const mapping = mmap(nullptr, form_bytes, PROT_READ, MAP_PRIVATE, form.get(), 0);
    if (mapping == MAP_FAILED)
        throw std::bad_alloc();
    m_mapping = static_cast<char*>(mapping);
    m_mapping_bytes = form_bytes;
    m_state = State::Usable;
}

SerialisedSymbols::~SerialisedSymbols() {
    if (m_mapping != nullptr)
        (void)munmap(m_mapping, m_mapping_bytes); // fails for a wrong address alone
}

char* SerialisedSymbols::data() const {
    return m_mapping + sizeof(Header);
}

size_t SerialisedSymbols::size() const {
    return m_mapping_bytes - sizeof(Header);
}

Serialised serialiseSymbols(const std::string& symbol_path, int output) {
    const Descriptor symbols = openToRead(symbol_path);
    struct stat status = {};
    if (!symbols.isOpen() || fstat(symbols.get(), &status) != 0)
        return Serialised::NotNow;

    const std::optional<std::string> text = readAll(symbols.get(), static_cast<size_t>(status.st_size));
    if (!text)
        return Serialised::NotNow;

    size_t data_bytes = 0;
    google_breakpad::ModuleSerializer serializer;
    const std::unique_ptr<char[]> data(serializer.SerializeSymbolFileData(*text, &data_bytes));
    if (!data || data_bytes > kMostDataBytes)
        return Serialised::Unusable;
    return writeForm(output, headerFor(status, data_bytes), data.get()) ? Serialised::Made
                                                                        : Serialised::NotNow;
}

bool writeUnusableForm(const struct stat& symbols, int output) {
    return writeForm(output, headerFor(symbols, 0), nullptr);
}

} // namespace vantor::collector
