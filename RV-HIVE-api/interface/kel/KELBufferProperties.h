#pragma once

#include <kel/KELExport.h>

namespace kel {

/// The identity of one buffer of collected data, and two flags. Init() sets it up. One owner at a
/// time; only drawing an id is atomic.
///
/// It is its own ordering, for collections of pointers sorted by identity:
/// `std::set<TSBufferProperties*, TSBufferProperties>`.
struct KEL_EXPORT TSBufferProperties
{
    /// Clears the flags and ids.
    void Init();

    bool IsDestroyed() const;
    void SetDestroyed(bool destroyed);

    bool IsPersistent() const;
    void SetPersistent(bool persistent);

    unsigned int GetBufferId() const;
    void SetBufferId(unsigned int bufferId);

    /// Draws the next id from a counter that any number of threads share, without a memory
    /// barrier: the counter plus one. The buffer is alive again.
    void SetBufferId(unsigned int volatile* counter);

    short GetSecondaryId() const;
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
