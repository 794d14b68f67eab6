#pragma once

#include <cstddef>

namespace kel::test {

/// Lets an allocation of the calling thread by operator new fail. A program that names this source
/// has its operator new and delete from it.
///
/// @param number  of the one to fail, counted from now on; 0: none does.
void FailAllocation(size_t number);

/// Whether that one has not come yet.
bool IsFailureToCome();

} // namespace kel::test
