#pragma once

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

namespace kel {

/// A copy of an application's function whose own copies share its state: one of them can be called
/// in its place, and outlive it, without the application seeing more than one function.
///
/// @return an empty function for an empty one.
template <typename Result, typename... Arguments>
boost::function<Result(Arguments...)>
ShareState(const boost::function<Result(Arguments...)>& function)
{
    if (function.empty()) {
        return function;
    }
    // Not in one block with its counters, which costs more code for each type of function.
    typedef boost::function<Result(Arguments...)> TFunction;
    const boost::shared_ptr<TFunction> shared(new TFunction(function));
    return [shared](Arguments... arguments) -> Result { return (*shared)(arguments...); };
}

} // namespace kel
