#pragma once

/// @file
/// Where an application begins.

#include <boost/shared_ptr.hpp>

#include <kel/IControl.h>
#include <kel/KELExport.h>

/// The library.
namespace kel {
/// What an application calls first.
namespace api {

/// The library's entry point: the process's control object. Thread-safe.
///
/// The first call connects to the system bus on the calling thread; events from the agent are
/// delivered in that thread's default main context.
///
/// @return the control object; empty once process exit has begun.
///
/// @snippet class-examples.cpp IControl
KEL_EXPORT boost::shared_ptr<IControl> GetControl();

} // namespace api
} // namespace kel
