// How Breakpad's dumper looks into the files of modules: in place of the functions of the same names in its
// library, which open, map and unmap each of them four times, and as often the kernel brings its pages in.
//
// Like Breakpad's they map by system calls alone: a sanitizer that had seen a mapping would take the library
// that is loaded there later, on another thread, for a race with it.

#include "crash/dumper_modules.h"

#include "crash/dump_in_progress.h"

#include "common/linux/memory_mapped_file.h"
#include "third_party/lss/linux_syscall_support.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vantor::crash {

LastModule::~LastModule() {
    if (m_data != nullptr)
        (void)sys_munmap(m_data, m_size);
}

void* LastModule::borrow(const char* path, size_t offset) {
    if (m_data == nullptr || m_offset != offset || m_path != path)
        return nullptr;
    ++m_users;
    return m_data;
}

void* LastModule::borrow(const struct stat& file, size_t offset) {
    if (m_data == nullptr || m_offset != offset || m_device != file.st_dev || m_inode != file.st_ino)
        return nullptr;
    ++m_users;
    return m_data;
}

void LastModule::keep(const char* path, const struct stat& file, size_t offset, void* data) {
    if (m_users > 0)
        return;
    if (m_data != nullptr)
        (void)sys_munmap(m_data, m_size);
    m_path = path;
    m_device = file.st_dev;
    m_inode = file.st_ino;
    m_offset = offset;
    m_data = data;
    m_size = static_cast<size_t>(file.st_size) - offset;
    m_users = 1;
}

bool LastModule::giveBack(const void* data) {
    if (m_data == nullptr || data != m_data)
        return false;
    --m_users;
    return true;
}

} // namespace vantor::crash

namespace {

/// A file to be read, and what is known of it.
class OpenFile {
public:
    /// What is no file, such as a pipe, is not waited for.
    explicit OpenFile(const char* path) : m_descriptor(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        m_is_open = m_descriptor != -1 && fstat(m_descriptor, &m_status) == 0 && m_status.st_size >= 0;
    }
    ~OpenFile() {
        if (m_descriptor != -1)
            (void)close(m_descriptor);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    bool isOpen() const { return m_is_open; }
    const struct stat& status() const { return m_status; }
    size_t size() const { return static_cast<size_t>(m_status.st_size); }

    void* map(size_t offset) const {
        return sys_mmap(nullptr, size() - offset, PROT_READ, MAP_PRIVATE, m_descriptor,
                        static_cast<off_t>(offset));
    }

private:
    const int m_descriptor;
    struct stat m_status = {};
    bool m_is_open = false;
};

} // namespace

namespace google_breakpad {

using vantor::crash::DumpInProgress;

// True, and nothing mapped, where there is nothing behind `offset`.
bool MemoryMappedFile::Map(const char* path, size_t offset) {
    Unmap();
    DumpInProgress* const dump = DumpInProgress::current();
    void* data = dump == nullptr ? nullptr : dump->module.borrow(path, offset);
    if (data != nullptr) {
        content_.Set(data, dump->module.size());
        return true;
    }

    const OpenFile file(path);
    if (!file.isOpen())
        return false;
    if (offset >= file.size())
        return true;

    if (dump != nullptr)
        data = dump->module.borrow(file.status(), offset);
    if (data == nullptr) {
        data = file.map(offset);
        if (data == MAP_FAILED)
            return false;
        if (dump != nullptr)
            dump->module.keep(path, file.status(), offset, data); // or it is this object's own
    }
    content_.Set(data, file.size() - offset);
    return true;
}

void MemoryMappedFile::Unmap() {
    if (content_.data() == nullptr)
        return;
    DumpInProgress* const dump = DumpInProgress::current();
    if (dump == nullptr || !dump->module.giveBack(content_.data()))
        (void)sys_munmap(const_cast<uint8_t*>(content_.data()), content_.length());
    content_.Reset();
}

} // namespace google_breakpad
