#include "tests/support/library_path.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <link.h>

namespace vantor::test {

std::string libraryPath(const char* name) {
    void* const library = dlopen(name, RTLD_LAZY | RTLD_LOCAL);
    const link_map* entry = nullptr;
    if (library == nullptr || dlinfo(library, RTLD_DI_LINKMAP, &entry) != 0) {
        fprintf(stderr, "%s cannot be found: %s\n", name, dlerror());
        abort();
    }
    std::string path = entry->l_name;
    (void)dlclose(library); // it has been found
    return path;
}

} // namespace vantor::test
