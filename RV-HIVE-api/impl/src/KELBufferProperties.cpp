#include <kel/KELBufferProperties.h>

namespace kel {

void TSBufferProperties::Init()
{
    m_destroyed = false;
    m_persistent = false;
    m_bufferId = 0;
    m_secondaryId = 0;
}

bool TSBufferProperties::IsDestroyed() const { return m_destroyed; }

void TSBufferProperties::SetDestroyed(bool destroyed) { m_destroyed = destroyed; }

bool TSBufferProperties::IsPersistent() const { return m_persistent; }

void TSBufferProperties::SetPersistent(bool persistent) { m_persistent = persistent; }

unsigned int TSBufferProperties::GetBufferId() const { return m_bufferId; }

void TSBufferProperties::SetBufferId(unsigned int bufferId) { m_bufferId = bufferId; }

void TSBufferProperties::SetBufferId(unsigned int volatile* counter)
{
    m_destroyed = false;
    m_bufferId = __atomic_add_fetch(counter, 1, __ATOMIC_RELAXED);
}

short TSBufferProperties::GetSecondaryId() const { return m_secondaryId; }

void TSBufferProperties::SetSecondaryId(short secondaryId) { m_secondaryId = secondaryId; }

bool TSBufferProperties::operator()(TSBufferProperties* a, TSBufferProperties* b) const
{
    if (a->GetBufferId() == b->GetBufferId()) {
        return a->GetSecondaryId() < b->GetSecondaryId();
    }
    return a->GetBufferId() < b->GetBufferId();
}

} // namespace kel
