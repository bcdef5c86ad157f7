#include "client/uncaught_exception.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <exception>
#include <typeinfo>

namespace vantor::client {

namespace {

std::terminate_handler g_earlier = nullptr;

// Written by the first thread that terminates, and then shown.
char g_text[256];
std::atomic_flag g_is_taken = ATOMIC_FLAG_INIT;
std::atomic<size_t> g_size = 0;

void append(std::string_view text, size_t* size) {
    const size_t length = std::min(text.size(), sizeof(g_text) - *size);
    std::memcpy(g_text + *size, text.data(), length);
    *size += length;
}

/// "std::runtime_error: the text".
size_t writeText(const std::type_info& type) {
    size_t size = 0;
    int status = 0;
    char* const name = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    append(name != nullptr ? name : type.name(), &size);
    std::free(name);
    try {
        throw; // there is no other way to its text
    } catch (const std::exception& exception) {
        append(": ", &size);
        append(exception.what(), &size);
    } catch (...) { // has none
    }
    return size;
}

void onTerminate() {
    const std::type_info* const type = abi::__cxa_current_exception_type(); // null: terminate() was called
    if (type != nullptr && !g_is_taken.test_and_set())
        g_size.store(writeText(*type));
    if (g_earlier != nullptr)
        g_earlier();
    std::abort();
}

} // namespace

void watchUncaughtExceptions() {
    if (std::get_terminate() == onTerminate)
        return;
    g_earlier = std::set_terminate(onTerminate);
}

void ignoreUncaughtExceptions() {
    if (std::get_terminate() == onTerminate)
        (void)std::set_terminate(g_earlier);
}

std::string_view uncaughtException() {
    return {g_text, g_size.load()};
}

} // namespace vantor::client
