// What an application's function held was destroyed under the end's locks: a destructor that used
// the end deadlocked.

#include "channel/CallbacksTest.h" // the watchdog

namespace kel::test {

namespace {

/// A function that uses the end when the last copy of it goes.
template <typename End> class UsesTheEnd
{
public:
    explicit UsesTheEnd(End& end)
        : m_held(nullptr, [&end](void*) { end.SetCallback(99, TCDbus::TMessageCallback()); })
    {}
    bool operator()(const TBytes&, TBytes&) const { return true; }

private:
    std::shared_ptr<void> m_held;
};

template <typename End> void RemoveAndRefuse(End& end)
{
    const Watchdog watchdog;
    ASSERT_TRUE(end.SetCallback(1, UsesTheEnd<End>(end)));
    EXPECT_TRUE(end.UnSetCallback(1));
    EXPECT_TRUE(end.UnSetCallback(99)) << "the function has gone, and used the end";

    ASSERT_TRUE(end.SetCallback(2, TCDbus::TMessageCallback()));
    EXPECT_FALSE(end.SetCallback(2, UsesTheEnd<End>(end)));
    EXPECT_TRUE(end.UnSetCallback(99));
}

TEST_F(ServerTest, AFunctionThatIsRemovedOrRefusedMayUseTheServer) { RemoveAndRefuse(m_server); }

TEST_F(ClientTest, AFunctionThatIsRemovedOrRefusedMayUseTheClient)
{
    StartAgent();
    RemoveAndRefuse(*m_client);
}

} // namespace

} // namespace kel::test
