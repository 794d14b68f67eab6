// Starting and stopping the agent's end, also where it cannot start.

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cerrno>
#include <future>

#include <boost/thread/exceptions.hpp>

#include "channel/ChannelTest.h"

namespace kel::test {

namespace {

typedef ChannelTest ServerLife;

// From now on this thread cannot start others: the kernel answers EAGAIN.
void RefuseThreads()
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone3, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
    };
    const sock_fprog filter = {sizeof(program) / sizeof(program[0]), program};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

TEST_F(ServerLife, ATestServerServesTheTestChannelAndCallsClientsThere)
{
    TCDbusServer server(true);
    ASSERT_TRUE(WaitUntil([&] { return server.IsReady(); }));
    RawPeer peer(m_bus);
    peer.SetTarget(kTestBusName, kTestObjectPath);

    ASSERT_TRUE(peer.Hello({5}).IsOk());
    peer.Settle();

    EXPECT_EQ(server.SendMessage(5, {}, 1000), TCounts(1, 0));
    EXPECT_EQ(peer.Calls().at(0).m_path, kTestObjectPath);
    EXPECT_EQ(peer.Calls().at(0).m_interface, kInterface);
    peer.SetTarget(kTestBusName, kObjectPath);
    EXPECT_EQ(peer.Send(SendBytes(1, 0)).m_error, "org.freedesktop.DBus.Error.UnknownMethod");
    peer.SetTarget(kBusName, kTestObjectPath);
    EXPECT_FALSE(peer.Send(SendBytes(1, 0)).IsOk()) << "nobody owns the real name";
}

TEST_F(ServerLife, IsReadyOnceTheNameIsItsOwnAndNotBefore)
{
    std::unique_ptr<TCDbusServer> server;
    m_loop.Run([&] {
        // Nobody iterates the context here, so no name event can arrive.
        server = std::make_unique<TCDbusServer>(false);
        EXPECT_FALSE(server->IsReady());
        EXPECT_NE(server->GetUniqueName(), "");
        EXPECT_EQ(server->SendMessage(5, {}, 1000), TCounts(0, 0));
        EXPECT_TRUE(m_log.Has(kDebug, "Connection is ready 0, number of clients 0"));
    });

    EXPECT_TRUE(WaitUntil([&] { return server->IsReady(); }));
}

TEST_F(ServerLife, ClientsThatCameBeforeTheNameAreKeptAndCalledAfterwards)
{
    RawPeer owner(m_bus);
    ASSERT_TRUE(owner.OwnName());
    TCDbusServer server(false);
    RawPeer peer(m_bus);
    peer.SetTarget(server.GetUniqueName());
    ASSERT_TRUE(peer.Hello({5}).IsOk());
    peer.Settle();

    EXPECT_EQ(server.NumberOfClients(), 1u);
    EXPECT_EQ(server.SendMessage(5, {}, 1000), TCounts(0, 0));
    EXPECT_TRUE(m_log.Has(kDebug, "Connection is ready 0, number of clients 1"));

    owner.ReleaseName();
    ASSERT_TRUE(WaitUntil([&] { return server.IsReady(); }));
    EXPECT_EQ(server.SendMessage(5, {}, 1000), TCounts(1, 0));
}

TEST_F(ServerLife, WithoutTheNameItIsNeverReadyAndSaysSo)
{
    RawPeer owner(m_bus);
    ASSERT_TRUE(owner.OwnName());

    TCDbusServer server(false);

    char lost[256];
    snprintf(lost, sizeof(lost), "Name %s has been lost, user_data %p", kBusName,
             static_cast<void*>(&server));
    EXPECT_TRUE(m_log.WaitFor(FailedCheck("KELDbusServer", 233)));
    EXPECT_TRUE(m_log.Has(kDebug, lost)) << m_log.Text();
    EXPECT_TRUE(m_log.Has(kError, FailedCheck("KELDbusServer", 233)));
    EXPECT_FALSE(server.IsReady());
}

TEST_F(ServerLife, ASecondEndCannotExportTheSameObject)
{
    TCDbusServer first(false);
    ASSERT_TRUE(WaitUntil([&] { return first.IsReady(); }));
    const size_t threads = CountThreads();
    {
        TCDbusServer second(false);

        EXPECT_TRUE(m_log.Has(kError, "Registering object error, errno "
                                          + std::to_string(G_IO_ERROR_EXISTS)))
            << m_log.Text();
        EXPECT_FALSE(second.IsReady());
        EXPECT_EQ(second.m_ownerId, 0u) << "no name is owned";
        EXPECT_EQ(CountThreads(), threads) << "no thread is started";
    }

    RawPeer peer(m_bus);
    EXPECT_TRUE(peer.Hello({1}).IsOk()) << "the first one still serves";
}

TEST_F(ServerLife, ThePrivateThreadCannotStopIt)
{
    TCDbusServer server(false);
    ASSERT_TRUE(WaitUntil([&] { return server.IsReady(); }));
    std::promise<std::pair<int, std::string>> thrown;

    GSource* const source = g_idle_source_new();
    auto stop = [&] {
        try {
            server.t_Stop();
            thrown.set_value({0, "nothing thrown"});
        } catch (const boost::thread_resource_error& error) {
            thrown.set_value({error.native_error(), error.what()});
        }
    };
    g_source_set_callback(
        source,
        [](gpointer function) -> gboolean {
            (*static_cast<decltype(stop)*>(function))();
            return G_SOURCE_REMOVE;
        },
        &stop, nullptr);
    g_source_attach(source, server.m_pContext);
    g_source_unref(source);

    const auto [code, text] = thrown.get_future().get();
    EXPECT_EQ(code, 35);
    EXPECT_EQ(text.rfind("boost thread: trying joining itself", 0), 0u) << text;
}

TEST_F(ServerLife, WithoutAThreadToStartTheExceptionPassesAndNothingStays)
{
    { // the D-Bus library starts its own threads once
        TCDbusServer server(false);
        ASSERT_TRUE(WaitUntil([&] { return server.IsReady(); }));
    }
    std::thread([] {
        RefuseThreads();
        EXPECT_THROW(TCDbusServer(false), boost::thread_resource_error);
    }).join();

    TCDbusServer server(false);
    EXPECT_TRUE(WaitUntil([&] { return server.IsReady(); }))
        << "the object and the name are free again\n"
        << m_log.Text();
}

TEST_F(ServerLife, AThousandInARowLeaveNothingBehind)
{
    RawPeer peer(m_bus); // GDBus's own threads and descriptors
    {
        TCDbusServer warmUp(false);
    }
    m_loop.Settle();
    const size_t threads = CountThreads();
    const size_t descriptors = CountDescriptors();

    for (int i = 0; i < 1000; ++i) {
        TCDbusServer server(false);
    }

    m_loop.Settle();
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; })) << CountThreads();
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() <= descriptors; })) << CountDescriptors();
    TCDbusServer last(false);
    EXPECT_TRUE(WaitUntil([&] { return last.IsReady(); })) << "the last one works";
    EXPECT_TRUE(peer.Hello({1}).IsOk());
}

TEST_F(ServerLife, AThousandWithoutAMainLoopLeaveNothingBehindEither)
{
    RawPeer peer(m_bus);
    m_loop.Run([] { // which is what keeps the loop from running
        {
            TCDbusServer warmUp(false);
        }
        const size_t threads = CountThreads();

        for (int i = 0; i < 1000; ++i) {
            TCDbusServer server(false);
        }

        EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }));
    });
}

TEST_F(ServerLife, AHelloAtTheInstantOfTheExportIsNeverLost)
{
    // The connection is there before the server, so its name is known.
    const std::unique_ptr<GDBusConnection, void (*)(gpointer)> shared(
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr), &g_object_unref);
    RawPeer peer(m_bus);
    peer.SetTarget(g_dbus_connection_get_unique_name(shared.get()));

    for (int round = 0; round < 200; ++round) {
        std::unique_ptr<TCDbusServer> server;
        std::future<void> made = std::async(
            std::launch::async, [&] { server = std::make_unique<TCDbusServer>(false); });
        while (!peer.Hello({1}).IsOk()) {
        }
        made.wait();
        peer.Settle();

        ASSERT_EQ(server->NumberOfClients(), 1u) << "round " << round << "\n" << m_log.Text();
        m_log.Clear();
    }
}

} // namespace

} // namespace kel::test
