#pragma once

// Builds with a sanitizer that keeps books of all memory, for which it reserves terabytes and makes system
// calls.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VANTOR_HAS_SHADOW_MEMORY 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VANTOR_HAS_SHADOW_MEMORY 1
#endif
#endif
