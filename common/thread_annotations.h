#pragma once

// Clang's thread-safety analysis, which the build with Clang checks as errors. Other compilers see nothing.

#if defined(__clang__)
#define VANTOR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VANTOR_THREAD_ANNOTATION(x)
#endif

#define VANTOR_CAPABILITY(name) VANTOR_THREAD_ANNOTATION(capability(name))
#define VANTOR_SCOPED_CAPABILITY VANTOR_THREAD_ANNOTATION(scoped_lockable)
#define VANTOR_GUARDED_BY(mutex) VANTOR_THREAD_ANNOTATION(guarded_by(mutex))
#define VANTOR_REQUIRES(...) VANTOR_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VANTOR_EXCLUDES(...) VANTOR_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define VANTOR_ACQUIRE(...) VANTOR_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VANTOR_RELEASE(...) VANTOR_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
