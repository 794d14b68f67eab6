// A user that unregistered while it was told of the deactivation was freed under the call, and who
// used the library from a function at deactivation waited for itself.

#include <atomic>
#include <future>

#include <gmock/gmock.h>

#include "support/Threads.h"
#include "unit/DeactivatorTest.h"

namespace kel::test {

using testing::ElementsAre;

namespace {

// A user that takes its time.
class TCSlowUser : public TIDestroyCallback
{
public:
    void OnDestroy() override
    {
        m_entered.set_value();
        m_leave.get_future().wait();
        m_told = true;
    }

    std::promise<void> m_entered;
    std::promise<void> m_leave;
    std::atomic<bool> m_told{false};
};

TEST_F(Deactivator, UnregisteringWaitsForAUserThatIsBeingTold)
{
    TCSlowUser user;
    TCDeactivator::RegisterUser(user);
    const auto deactivation
        = std::async(std::launch::async, [this] { m_deactivator.m_Deactivate(); });
    user.m_entered.get_future().wait();

    auto unregistering = CallUntilItSleeps([&user] {
        TCDeactivator::UnregisterUser(user);
        return user.m_told.load();
    });
    user.m_leave.set_value();

    EXPECT_TRUE(unregistering.get());
}

// The function waits for a thread that registers: exit waits for the handlers of other threads.
TEST_F(Deactivator, NobodyWaitsForTheFunctions)
{
    TCDeactivator::RegisterUser(m_a);
    TCDeactivator::RegisterDBUS([] {
        std::async(std::launch::async, [] {
            TCDeactivator::RegisterDBUS(&Function<1>);
            TCUser user("user");
            TCDeactivator::RegisterUser(user);
            TCDeactivator::UnregisterUser(user);
            events.push_back(api::GetControl() == nullptr ? "none" : "control");
        }).wait();
    });

    m_deactivator.m_Deactivate();

    EXPECT_THAT(events, ElementsAre("user a", "none"));
}

TEST_F(DeactivatorOfTheControlObject, DeactivationEndsIt)
{
    const boost::shared_ptr<IControl> held = api::GetControl();
    ASSERT_NE(held, nullptr);

    m_deactivator.m_Deactivate();
    m_log.Clear();

    EXPECT_EQ(api::GetControl(), nullptr);
    EXPECT_EQ(TCControlProxy::Instance(), nullptr);
    EXPECT_THAT(TakeMessages(m_log),
                ElementsAre("6 Unable to register user callback - already destroyed"));
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_EQ(held->SetPolicy("x"), -1) << "who holds it keeps a working object";
}

} // namespace

} // namespace kel::test
