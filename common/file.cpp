#include "common/file.h"

#include "common/descriptor_limit.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor {

namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

/// The flags of open(2) for a mode of fopen(3); empty for a text that is none.
std::optional<int> openFlags(std::string mode) {
    std::erase(mode, 'b');
    if (mode == "r")
        return O_RDONLY;
    if (mode == "r+")
        return O_RDWR;
    if (mode == "w")
        return O_WRONLY | O_CREAT | O_TRUNC;
    if (mode == "w+")
        return O_RDWR | O_CREAT | O_TRUNC;
    if (mode == "a")
        return O_WRONLY | O_CREAT | O_APPEND;
    if (mode == "a+")
        return O_RDWR | O_CREAT | O_APPEND;
    return std::nullopt;
}

/// Opens within the limits on descriptors: raises them when they run short, and leaves the reserve alone
/// where this thread is asked to.
int openWithinLimits(const std::string& path, int flags) {
    int descriptor = ::open(path.c_str(), flags, kOwnerOnly);
    if (descriptor == -1 && errno == EMFILE && raiseDescriptorLimit())
        descriptor = ::open(path.c_str(), flags, kOwnerOnly);
    if (descriptor == -1 || !isFromDescriptorReserve(descriptor))
        return descriptor;

    if (raiseDescriptorLimit() || !ScopedDescriptorReserve::isHeld())
        return descriptor;
    (void)::close(descriptor); // nothing was written to it
    return -1;
}

bool isRegularFile(int descriptor) {
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

class OpenFile final : public File {
public:
    OpenFile(const std::string& path, int descriptor) : m_path(path), m_descriptor(descriptor) {}
    ~OpenFile() override { (void)closeDescriptor(); }

    const std::string& path() const override { return m_path; }
    bool write(const std::string& text) override;
    int64_t read(std::string* out, int64_t count) override;
    bool seek(int64_t offset) override;
    int64_t size() override;
    bool close() override { return closeDescriptor(); }

private:
    bool flush();
    bool closeDescriptor();

    const std::string m_path;
    int m_descriptor; // -1 once closed
    std::string m_unwritten;
};

bool OpenFile::write(const std::string& text) {
    if (m_descriptor == -1)
        return false;

    m_unwritten += text;
    return true;
}

int64_t OpenFile::read(std::string* out, int64_t count) {
    out->clear();
    if (!flush())
        return -1;

    size_t length = 0;
    out->resize(static_cast<size_t>(std::max<int64_t>(count, 0)));
    while (length < out->size()) {
        const ssize_t piece = ::read(m_descriptor, out->data() + length, out->size() - length);
        if (piece == -1 && errno == EINTR)
            continue;
        if (piece <= 0) {
            out->resize(length);
            return piece == 0 ? static_cast<int64_t>(length) : -1;
        }
        length += static_cast<size_t>(piece);
    }
    return static_cast<int64_t>(length);
}

bool OpenFile::seek(int64_t offset) {
    return flush() && lseek(m_descriptor, offset, SEEK_SET) == offset;
}

int64_t OpenFile::size() {
    (void)flush(); // on a full disk the file is as long as it got
    struct stat status = {};
    return fstat(m_descriptor, &status) == 0 ? status.st_size : -1;
}

/// False when the file is closed or could not take all.
bool OpenFile::flush() {
    std::string text;
    text.swap(m_unwritten);
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t piece = ::write(m_descriptor, text.data() + written, text.size() - written);
        if (piece == -1 && errno == EINTR)
            continue;
        if (piece == -1)
            return false;
        written += static_cast<size_t>(piece);
    }
    return m_descriptor != -1;
}

bool OpenFile::closeDescriptor() {
    const bool is_flushed = flush();
    if (m_descriptor == -1)
        return false;

    const bool is_closed = ::close(m_descriptor) == 0;
    m_descriptor = -1;
    return is_flushed && is_closed;
}

} // namespace

std::shared_ptr<File> File::open(const std::string& path, const std::string& mode, bool close_on_exec) {
    const std::optional<int> flags = openFlags(mode);
    if (!flags)
        return nullptr;

    // O_NONBLOCK changes nothing for a regular file, and the opening of a pipe does not wait for its other
    // end. A link is not followed: whoever can place one must not choose what is read and sent, or
    // overwritten.
    const int descriptor =
        openWithinLimits(path, *flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | (close_on_exec ? O_CLOEXEC : 0));
    if (descriptor == -1)
        return nullptr;

    if (!isRegularFile(descriptor)) {
        (void)::close(descriptor);
        return nullptr;
    }
    return std::make_shared<OpenFile>(path, descriptor);
}

} // namespace vantor
