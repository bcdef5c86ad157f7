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
int openWithinLimits(int directory, const char* path, int flags) {
    int descriptor = ::openat(directory, path, flags, kOwnerOnly);
    if (descriptor == -1 && errno == EMFILE && raiseDescriptorLimit())
        descriptor = ::openat(directory, path, flags, kOwnerOnly);
    if (descriptor == -1 || !isFromDescriptorReserve(descriptor))
        return descriptor;

    if (raiseDescriptorLimit() || !ScopedDescriptorReserve::isHeld())
        return descriptor;
    (void)::close(descriptor); // nothing was written to it
    return -1;
}

/// Whether the file is this user's and has no second name, by which it could be meant as another one.
bool isOwnAlone(int descriptor) {
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && status.st_uid == geteuid() && status.st_nlink == 1;
}

bool isRegularFile(int descriptor) {
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

int openRegular(int directory, const char* name, int flags) {
    const int descriptor = openWithinLimits(directory, name, flags);
    if (descriptor == -1 || isRegularFile(descriptor))
        return descriptor;
    (void)::close(descriptor); // as it was
    return -1;
}

/// Opens a file that is new, or empties one: but no file of another user, who could then read what is
/// written, and none that somebody has put in the place of a new one by a hard link.
int openEmptied(int directory, const char* name, int flags) {
    const int created = openWithinLimits(directory, name, flags | O_EXCL);
    if (created != -1 || errno != EEXIST)
        return created;

    const int descriptor = openRegular(directory, name, flags & ~(O_CREAT | O_TRUNC));
    if (descriptor == -1 || (isOwnAlone(descriptor) && ftruncate(descriptor, 0) == 0))
        return descriptor;
    (void)::close(descriptor); // as it was
    return -1;
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
    int m_descriptor;       // -1 once closed
    int64_t m_position = 0; // of the descriptor; -1 where it is not known
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

    m_position = -1;
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
    if (!flush())
        return false;

    if (m_position != offset)
        m_position = lseek(m_descriptor, offset, SEEK_SET);
    return m_position == offset && offset >= 0;
}

int64_t OpenFile::size() {
    (void)flush(); // on a full disk the file is as long as it got
    struct stat status = {};
    return fstat(m_descriptor, &status) == 0 ? status.st_size : -1;
}

/// False when the file is closed or could not take all.
bool OpenFile::flush() {
    if (m_unwritten.empty())
        return m_descriptor != -1;

    std::string text;
    text.swap(m_unwritten);
    m_position = -1;
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

/// Opens `name` in `directory`, as the file of this path.
std::shared_ptr<File> openNamed(int directory, const char* name, const std::string& path,
                                const std::string& mode, bool close_on_exec) {
    const std::optional<int> flags = openFlags(mode);
    if (!flags)
        return nullptr;

    // O_NONBLOCK changes nothing for a regular file, and the opening of a pipe does not wait for its other
    // end. A link is not followed: whoever can place one must not choose what is read and sent, or
    // overwritten.
    const int all_flags = *flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | (close_on_exec ? O_CLOEXEC : 0);
    const int descriptor = (*flags & O_TRUNC) != 0 ? openEmptied(directory, name, all_flags)
                                                   : openRegular(directory, name, all_flags);
    if (descriptor == -1)
        return nullptr;
    return std::make_shared<OpenFile>(path, descriptor);
}

} // namespace

std::shared_ptr<File> File::open(const std::string& path, const std::string& mode, bool close_on_exec) {
    return openNamed(AT_FDCWD, path.c_str(), path, mode, close_on_exec);
}

Directory::Directory(const std::string& path)
    : m_path(path),
      m_descriptor(openWithinLimits(AT_FDCWD, path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

Directory::~Directory() {
    if (m_descriptor != -1)
        (void)::close(m_descriptor);
}

std::shared_ptr<File> Directory::open(const std::string& name, const std::string& mode,
                                      bool close_on_exec) const {
    return openNamed(m_descriptor, name.c_str(), File::joinPath(m_path, name), mode, close_on_exec);
}

} // namespace vantor
