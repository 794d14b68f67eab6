#include "support/MemoryShortage.h"

#include <cstdlib>
#include <new>

namespace {

thread_local size_t untilFailure = 0;

} // namespace

// In place of the standard library's, whose other forms are made of these. In a source of their
// own: a compiler that sees the one without the other inlined takes them for a mismatch.

void* operator new(size_t size)
{
    void* const block
        = untilFailure != 0 && --untilFailure == 0 ? nullptr : std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept { std::free(block); }

void operator delete(void* block, size_t) noexcept { std::free(block); }

namespace kel::test {

void FailAllocation(size_t number) { untilFailure = number; }

bool IsFailureToCome() { return untilFailure != 0; }

} // namespace kel::test
