#pragma once

#include <cstddef>

/// Counts the heap allocations of the calling thread, C's and C++'s, for the length of a scope.
class TCAllocations
{
public:
    TCAllocations();
    ~TCAllocations();
    TCAllocations(const TCAllocations&) = delete;
    TCAllocations& operator=(const TCAllocations&) = delete;

    size_t Count() const;
    size_t Largest() const; // bytes
};
