#pragma once

// CURLOPT_PROTOCOLS has a successor that older libraries do not know; the library is whatever the machine
// has.
#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

namespace vantor {

/// The functions of libcurl that we use. The library is loaded by the first upload and not linked: with all
/// that it needs itself it would cost every start some milliseconds and megabytes, and most runs never upload
/// anything.
struct CurlLibrary {
    decltype(&::curl_global_init) global_init;
    decltype(&::curl_version_info) version_info;
    decltype(&::curl_easy_init) easy_init;
    decltype(&::curl_easy_cleanup) easy_cleanup;
    decltype(&::curl_easy_setopt) easy_setopt;
    decltype(&::curl_easy_getinfo) easy_getinfo;
    decltype(&::curl_multi_init) multi_init;
    decltype(&::curl_multi_cleanup) multi_cleanup;
    decltype(&::curl_multi_setopt) multi_setopt;
    decltype(&::curl_multi_add_handle) multi_add_handle;
    decltype(&::curl_multi_remove_handle) multi_remove_handle;
    decltype(&::curl_multi_perform) multi_perform;
    decltype(&::curl_multi_poll) multi_poll;
    decltype(&::curl_multi_wakeup) multi_wakeup;
    decltype(&::curl_multi_info_read) multi_info_read;
    decltype(&::curl_mime_init) mime_init;
    decltype(&::curl_mime_free) mime_free;
    decltype(&::curl_mime_addpart) mime_addpart;
    decltype(&::curl_mime_name) mime_name;
    decltype(&::curl_mime_filename) mime_filename;
    decltype(&::curl_mime_type) mime_type;
    decltype(&::curl_mime_data) mime_data;
    decltype(&::curl_mime_data_cb) mime_data_cb;
    decltype(&::curl_slist_append) slist_append;
    decltype(&::curl_slist_free_all) slist_free_all;

    /// Loads and initialises the library, once in a process; it stays until the process ends. Null when it
    /// cannot be loaded: the first time this says why on standard error, and the next call tries again. Any
    /// thread may call it.
    static const CurlLibrary* load();
};

} // namespace vantor
