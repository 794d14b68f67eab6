#include "Allocations.h"

#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KEL_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KEL_SANITIZED 1
#endif
#endif

namespace {

thread_local bool counting = false;
thread_local size_t count = 0;
thread_local size_t largest = 0;

void Note(size_t size)
{
    if (counting) {
        ++count;
        largest = size > largest ? size : largest;
    }
}

} // namespace

#ifdef KEL_SANITIZED

// A sanitizer has its own malloc and tells who asks.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*,
                                                                          size_t),
                                                         void (*onFree)(const volatile void*));

namespace {

const int installed = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, size_t size) { Note(size); }, [](const volatile void*) {});

} // namespace

#else

// These stand in for the C library's, for this program and every library in it; operator new is
// made of them.
extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t number, size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size)
{
    Note(size);
    return __libc_malloc(size);
}

void* calloc(size_t number, size_t size)
{
    Note(number * size);
    return __libc_calloc(number, size);
}

void* realloc(void* block, size_t size)
{
    Note(size);
    return __libc_realloc(block, size);
}
}

#endif

TCAllocations::TCAllocations()
{
    count = 0;
    largest = 0;
    counting = true;
}

TCAllocations::~TCAllocations() { counting = false; }

size_t TCAllocations::Count() const { return count; }

size_t TCAllocations::Largest() const { return largest; }
