#pragma once

// What GDBus's own locks order, told to ThreadSanitizer, which does not look inside GDBus: all that
// happened before HandOver(p) happens before what follows TakeOver(p). Nothing in other builds.

#if defined(__SANITIZE_THREAD__)
#define KEL_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KEL_TSAN 1
#endif
#endif

#ifdef KEL_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace kel::test {

inline void HandOver([[maybe_unused]] void* object)
{
#ifdef KEL_TSAN
    __tsan_release(object);
#endif
}

inline void TakeOver([[maybe_unused]] void* object)
{
#ifdef KEL_TSAN
    __tsan_acquire(object);
#endif
}

} // namespace kel::test
