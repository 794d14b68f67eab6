#include "BenchPeer.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KELGlib.h"
#include "support/WaitUntil.h"

namespace kel::bench {

std::unique_ptr<test::ChildProcess> StartPeer(const std::vector<std::string>& role,
                                              const test::ChildProcess::TEnvironment& environment)
{
    std::vector<std::string> command{"/proc/self/exe"};
    command.insert(command.end(), role.begin(), role.end());
    auto peer = std::make_unique<test::ChildProcess>(command, environment);
    if (!peer->WaitForOutput("\n")) {
        Fail("a peer does not start: " + peer->ErrorOutput());
    }
    return peer;
}

void Serve(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    std::abort();
}

void Fail(const std::string& what)
{
    std::fprintf(stderr, "benchmark failed: %s\n", what.c_str());
    std::fflush(nullptr);
    _exit(2); // the peers die with this process
}

void Await(const std::function<bool()>& fact, const std::string& what)
{
    if (!test::WaitUntil(fact)) {
        Fail("waited in vain for " + what);
    }
}

TBytes RequestBytes(int type, const TBytes& data)
{
    TBytes bytes(5 + data.size());
    std::memcpy(bytes.data(), &type, 4);
    if (!data.empty()) {
        std::memcpy(bytes.data() + 5, data.data(), data.size());
    }
    return bytes;
}

GVariant* Borrow(const TBytes& bytes)
{
    GVariant* array = g_variant_new_from_data(G_VARIANT_TYPE("ay"), bytes.data(), bytes.size(),
                                              TRUE, nullptr, nullptr);
    return g_variant_new_tuple(&array, 1);
}

std::pair<const unsigned char*, size_t> BytesOf(GVariant* tuple)
{
    const TGlibPtr<GVariant> array(g_variant_get_child_value(tuple, 0));
    gsize size = 0;
    const void* bytes = g_variant_get_fixed_array(array.get(), &size, 1);
    return {static_cast<const unsigned char*>(bytes), size};
}

} // namespace kel::bench
