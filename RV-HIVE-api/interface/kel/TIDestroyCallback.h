#pragma once

#include <kel/KELExport.h>

namespace kel {

/// Implemented by a user of the library that wants to know when the process takes the library
/// down. See TCDeactivator::RegisterUser().
///
/// @snippet class-examples.cpp TCDeactivator
class KEL_EXPORT TIDestroyCallback
{
public:
    virtual ~TIDestroyCallback() {}

    /// Called once, when the process exits, before the library's
    /// singletons are ended. Must return quickly and must not call TCDeactivator.
    virtual void OnDestroy() = 0;
};

} // namespace kel
