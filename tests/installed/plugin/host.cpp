// Loads the plug-in that its argument names, lets it start, unloads it, and crashes.

#include <cstdio>
#include <dlfcn.h>

namespace {
int* volatile g_nowhere = nullptr;
}

int main(int, char** argv) {
    void* const plugin = dlopen(argv[1], RTLD_NOW);
    auto* const start =
        plugin != nullptr ? reinterpret_cast<bool (*)()>(dlsym(plugin, "startPlugin")) : nullptr;
    if (start == nullptr || !start() || dlclose(plugin) != 0) {
        fprintf(stderr, "host: %s\n", dlerror());
        return 1;
    }
    puts("host: the plug-in has gone");
    fflush(stdout);
    *g_nowhere = 1;
}
