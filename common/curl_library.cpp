#include "common/curl_library.h"

#include "common/mutex.h"

#include <cstdint>
#include <cstdio>
#include <dlfcn.h>
#include <string>

namespace vantor {

namespace {

constexpr const char* kLibraryName = "libcurl.so.4";

template <typename Function>
bool find(void* library, const char* name, Function* function) {
    *function = reinterpret_cast<Function>(dlsym(library, name));
    return *function != nullptr;
}

bool findFunctions(void* library, CurlLibrary* curl) {
    return find(library, "curl_global_init", &curl->global_init) &&
           find(library, "curl_version_info", &curl->version_info) &&
           find(library, "curl_easy_init", &curl->easy_init) &&
           find(library, "curl_easy_cleanup", &curl->easy_cleanup) &&
           find(library, "curl_easy_setopt", &curl->easy_setopt) &&
           find(library, "curl_easy_getinfo", &curl->easy_getinfo) &&
           find(library, "curl_multi_init", &curl->multi_init) &&
           find(library, "curl_multi_cleanup", &curl->multi_cleanup) &&
           find(library, "curl_multi_setopt", &curl->multi_setopt) &&
           find(library, "curl_multi_add_handle", &curl->multi_add_handle) &&
           find(library, "curl_multi_remove_handle", &curl->multi_remove_handle) &&
           find(library, "curl_multi_perform", &curl->multi_perform) &&
           find(library, "curl_multi_poll", &curl->multi_poll) &&
           find(library, "curl_multi_wakeup", &curl->multi_wakeup) &&
           find(library, "curl_multi_info_read", &curl->multi_info_read) &&
           find(library, "curl_mime_init", &curl->mime_init) &&
           find(library, "curl_mime_free", &curl->mime_free) &&
           find(library, "curl_mime_addpart", &curl->mime_addpart) &&
           find(library, "curl_mime_name", &curl->mime_name) &&
           find(library, "curl_mime_filename", &curl->mime_filename) &&
           find(library, "curl_mime_type", &curl->mime_type) &&
           find(library, "curl_mime_data", &curl->mime_data) &&
           find(library, "curl_mime_data_cb", &curl->mime_data_cb) &&
           find(library, "curl_slist_append", &curl->slist_append) &&
           find(library, "curl_slist_free_all", &curl->slist_free_all);
}

/// Keeps OpenSSL from cleaning up when the process exits: an upload thread may be in the middle of a transfer
/// then, and would crash. Must come before anything else initialises OpenSSL. A libcurl over another TLS
/// library has no need.
void keepOpenSslUntilTheEnd(void* library) {
    constexpr uint64_t kNoAtExit = 0x00080000; // OPENSSL_INIT_NO_ATEXIT
    int (*init_crypto)(uint64_t, const void*) = nullptr;
    if (find(library, "OPENSSL_init_crypto", &init_crypto))
        (void)init_crypto(kNoAtExit,
                          nullptr); // a failure shows again, and is handled, when a transfer starts
}

/// Null, and `*reason` says why, when the library cannot be used.
const CurlLibrary* loadOnce(std::string* reason) {
    void* library = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    static CurlLibrary curl;
    if (library == nullptr || !findFunctions(library, &curl)) {
        *reason = dlerror();
        if (library != nullptr)
            (void)dlclose(library); // as good as never loaded
        return nullptr;
    }

    keepOpenSslUntilTheEnd(library);
    if (curl.global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        *reason = "it does not initialise";
        return nullptr;
    }
    return &curl;
}

} // namespace

const CurlLibrary* CurlLibrary::load() {
    static Mutex mutex;
    static const CurlLibrary* loaded = nullptr;
    static bool has_complained = false;

    MutexLock lock(mutex);
    std::string reason;
    if (loaded == nullptr)
        loaded = loadOnce(&reason);
    if (loaded == nullptr && !has_complained) {
        has_complained = true;
        fprintf(stderr, "Cannot load %s, nothing will be uploaded: %s\n", kLibraryName, reason.c_str());
    }
    return loaded;
}

} // namespace vantor
