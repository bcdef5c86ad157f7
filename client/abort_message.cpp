#include "client/abort_message.h"

#include <cstring>
#include <dlfcn.h>

namespace vantor::client {

namespace {

/// The GNU C library keeps it for debuggers: a size, and behind it the text.
const char* const* g_message = nullptr;

} // namespace

void findAbortMessage() {
    g_message = static_cast<const char* const*>(dlsym(RTLD_DEFAULT, "__abort_msg")); // null in others
}

std::string_view abortMessage() {
    const char* const message = g_message != nullptr ? *g_message : nullptr;
    if (message == nullptr)
        return "";
    unsigned int room = 0;
    std::memcpy(&room, message, sizeof(room));
    const char* const text = message + sizeof(room);
    size_t size = strnlen(text, room);
    while (size > 0 && text[size - 1] == '\n')
        --size;
    return {text, size};
}

} // namespace vantor::client
