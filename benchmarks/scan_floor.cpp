// The floor under the scan for left-over reports: two opens, a stat, a read and one written line per pair of
// the crash directory, then the greeting. It looks at nothing that it reads, and ends without closing.
//
//     scan_floor SOCKET     the directory is $XDG_DATA_HOME/vantor/crash

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

char g_text[102'400];

void require(bool condition, const char* what) {
    if (condition)
        return;
    perror(what);
    exit(1);
}

void visitPair(int directory, char* name, char* extension) {
    const int params = openat(directory, name, O_RDONLY | O_CLOEXEC);
    (void)strcpy(extension, ".dmp");
    const int dump = openat(directory, name, O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    require(params != -1 && dump != -1 && fstat(params, &status) == 0, name);
    require(read(params, g_text, static_cast<size_t>(status.st_size)) == status.st_size, name);

    char line[512];
    const int length = snprintf(line, sizeof(line), "Uploading %s to the server\n", name);
    require(write(STDERR_FILENO, line, static_cast<size_t>(length)) == length, name);
}

} // namespace

int main(int, char** argv) {
    rlimit limit = {};
    (void)getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max; // none is closed
    (void)setrlimit(RLIMIT_NOFILE, &limit);

    const std::string path = std::string(getenv("XDG_DATA_HOME")) + "/vantor/crash";
    DIR* const directory = opendir(path.c_str());
    require(directory != nullptr, path.c_str());
    while (dirent* const entry = readdir(directory)) {
        char* const extension = strrchr(entry->d_name, '.');
        if (extension != nullptr && strcmp(extension, ".params") == 0)
            visitPair(dirfd(directory), entry->d_name, extension);
    }

    const char greeting = 1;
    require(write(atoi(argv[1]), &greeting, 1) == 1, "greeting");
}
