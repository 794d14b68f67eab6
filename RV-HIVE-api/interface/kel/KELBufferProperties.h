#pragma once

#include <kel/KELExport.h>

namespace kel {

/// The identity of one buffer of collected data, and two flags. Init() sets it up. One owner at a
/// time; only drawing an id is atomic.
///
/// It is its own ordering, for collections of pointers sorted by identity:
/// `std::set<TSBufferProperties*, TSBufferProperties>`.
///
/// @snippet class-examples.cpp TSBufferProperties
struct KEL_EXPORT TSBufferProperties
{
    /// Clears the flags and ids.
    void Init();

    /// Whether the buffer is marked destroyed.
    bool IsDestroyed() const;
    /// Marks it, or takes the mark away.
    void SetDestroyed(bool destroyed);

    /// Whether the buffer is marked persistent: what that means is its owner's business.
    bool IsPersistent() const;
    /// Marks it, or takes the mark away.
    void SetPersistent(bool persistent);

    /// The first part of the identity.
    unsigned int GetBufferId() const;
    /// Sets the first part of the identity, and nothing else.
    void SetBufferId(unsigned int bufferId);

    /// Draws the next id from a counter that any number of threads share, without a memory
    /// barrier: the counter plus one. The buffer is alive again.
    void SetBufferId(unsigned int volatile* counter);

    /// The second part of the identity.
    short GetSecondaryId() const;
    /// Sets the second part of the identity.
    void SetSecondaryId(short secondaryId);

    /// Whether a is before b: by buffer id, then by secondary id.
    bool operator()(TSBufferProperties* a, TSBufferProperties* b) const;

private:
    bool m_destroyed;
    bool m_persistent;
    unsigned int m_bufferId;
    short m_secondaryId;
};

} // namespace kel
