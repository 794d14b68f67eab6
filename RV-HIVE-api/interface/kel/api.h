#pragma once

#include <boost/shared_ptr.hpp>

#include <kel/IControl.h>
#include <kel/KELExport.h>

namespace kel {
namespace api {

/// The library's entry point: the process's control object. Thread-safe.
///
/// The first call connects to the system bus on the calling thread; events from the agent are
/// delivered in that thread's default main context.
///
/// @return the control object; empty once process exit has begun.
KEL_EXPORT boost::shared_ptr<IControl> GetControl();

} // namespace api
} // namespace kel
