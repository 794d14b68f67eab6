#pragma once

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kel/KELControlProxy.h>
#include <kel/KELDeactivator.h>
#include <kel/api.h>

#include "unit/Messages.h"

namespace kel::test {

typedef void (*TFunction)();

inline std::vector<std::string> events;

template <int number> void Function() { events.push_back("function " + std::to_string(number)); }

class TCUser : public TIDestroyCallback
{
public:
    explicit TCUser(const char* name) : m_name(name) {}
    void OnDestroy() override { events.push_back(m_name); }

private:
    const std::string m_name;
};

// The switch is thrown once in a process: these tests put it back, and use it up once each. They
// act on the one instance, as the static operations do.
class Deactivator : public testing::Test
{
protected:
    Deactivator()
        : m_deactivator(TCDeactivator::m_instance), m_functions(m_deactivator.m_functions),
          m_pUser(m_deactivator.m_pUser)
    {
        m_deactivator.m_functions.clear();
        m_deactivator.m_pUser = nullptr;
        events.clear();
    }

    ~Deactivator() override
    {
        TCDeactivator::m_destroyed = false;
        m_deactivator.m_functions = m_functions;
        m_deactivator.m_pUser = m_pUser;
    }

    LogRecorder m_log;
    TCDeactivator& m_deactivator;
    TCUser m_a{"user a"};
    TCUser m_b{"user b"};

private:
    const std::set<TFunction> m_functions;
    TIDestroyCallback* const m_pUser;
};

// The control object belongs to this process once: it is ended here for good.
class DeactivatorOfTheControlObject : public Deactivator
{
protected:
    ~DeactivatorOfTheControlObject() override
    {
        TCControlProxy::Destroy();
        TCControlProxy::m_destroyed = false;
    }
};

} // namespace kel::test
