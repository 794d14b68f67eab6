// A "Hello" of millions of types in disorder kept the agent busy for half a minute, and the types
// that it replaced were freed with the registry locked.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <random>

#include "KELPayload.h"
#include "channel/ChannelTest.h"

namespace {

std::atomic<kel::TCSharedMutex*> watchedMutex(nullptr);
std::atomic<size_t> freedUnderLock(0);

} // namespace

// In place of the standard library's: counts what is freed while nobody can read the registry.
void operator delete(void* block) noexcept
{
    kel::TCSharedMutex* const mutex = watchedMutex;
    if (mutex != nullptr) {
        if (mutex->try_lock_shared()) {
            mutex->unlock_shared();
        } else {
            ++freedUnderLock;
        }
    }
    std::free(block);
}
void operator delete(void* block, size_t) noexcept { operator delete(block); }
void* operator new(size_t size)
{
    void* const block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

namespace kel::test {

namespace {

TBytes Types(std::vector<int> types, bool shuffled)
{
    if (shuffled) {
        std::shuffle(types.begin(), types.end(), std::minstd_rand(1));
    }
    return HelloBytes(types);
}

std::vector<int> Ascending(int count)
{
    std::vector<int> types(count);
    for (int i = 0; i < count; ++i) {
        types[i] = i;
    }
    return types;
}

std::chrono::steady_clock::duration TimeToRead(const TBytes& bytes)
{
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ReadTypes(bytes).size(), bytes.size() / 4);
    return std::chrono::steady_clock::now() - begin;
}

// Unoptimised and checked, sorting costs several times what it does in a product: the bound is for
// any build. One by one it is 15 times, and grows.
TEST(LargeHello, InDisorderIsReadAboutAsFastAsInOrder)
{
    const std::vector<int> types = Ascending(2'000'000);
    const TBytes inOrder = Types(types, false);
    const TBytes inDisorder = Types(types, true);

    std::chrono::steady_clock::duration fast = TimeToRead(inOrder);
    std::chrono::steady_clock::duration slow = TimeToRead(inDisorder);
    for (int i = 0; i < 4 && slow >= 5 * fast; ++i) { // the machine may be busy
        fast = std::min(fast, TimeToRead(inOrder));
        slow = std::min(slow, TimeToRead(inDisorder));
    }

    EXPECT_LT(slow, 5 * fast);
}

TEST_F(ServerTest, ReplacedTypesAreFreedWhenTheRegistryIsFree)
{
    RawPeer peer(m_bus);
    Subscribe(peer, Ascending(10'000));

    watchedMutex = &m_server.m_stateMutex;
    Subscribe(peer, {1});
    watchedMutex = nullptr;

    EXPECT_LT(freedUnderLock, 100u);
}

TEST_F(ServerTest, TypesOfAClientThatVanishesAreFreedWhenTheRegistryIsFree)
{
    RawPeer peer(m_bus);
    Subscribe(peer, Ascending(10'000));

    watchedMutex = &m_server.m_stateMutex;
    peer.Vanish();
    EXPECT_TRUE(WaitUntil([this] { return m_server.NumberOfClients() == 0; }));
    m_loop.Settle();
    watchedMutex = nullptr;

    EXPECT_LT(freedUnderLock, 100u);
}

} // namespace

} // namespace kel::test
