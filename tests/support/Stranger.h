#pragma once

#include <sys/types.h>

#include <functional>

namespace kel::test {

/// Another user's process: does something, and then stays, with all that it has open, until this
/// object ends. Where a namespace has no other user it is this one's.
class Stranger
{
public:
    /// Returns when the stranger has done it, or has begun with what never ends.
    ///
    /// @param action   runs in a process that was forked off: no thread of this one is there.
    /// @param forEver  done again and again.
    explicit Stranger(const std::function<void()>& action, bool forEver = false,
                      uid_t user = kNobody);
    ~Stranger();
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;

    static constexpr uid_t kNobody = 65534;

private:
    pid_t m_child;
};

} // namespace kel::test
