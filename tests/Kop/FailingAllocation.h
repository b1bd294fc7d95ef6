#pragma once

// The thread sanitizer brings operators new of its own, which cannot be replaced.
#if defined(__SANITIZE_THREAD__)
#define OPERATOR_NEW_IS_REPLACED 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OPERATOR_NEW_IS_REPLACED 0
#endif
#endif
#ifndef OPERATOR_NEW_IS_REPLACED
#define OPERATOR_NEW_IS_REPLACED 1
#endif

// The tests of this library may let an allocation fail. All operators new of the program go
// through one countdown: at zero, that allocation throws std::bad_alloc. Negative: none does.
extern long allocationsUntilFailure;
