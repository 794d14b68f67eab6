// The smallest agent: accepts whatever applications set as its policy, and forgets it.

#include <iostream>
#include <sstream>
#include <vector>

#include <boost/archive/binary_oarchive.hpp>

#include <glib.h>

#include <kel/KELDbusServer.h>
#include <kel/KELIpcSerializationUtil.h>

namespace {

constexpr int kSetPolicy = 4;

// Not read here: the request is an archive that holds the policy, from a stranger. Check the
// lengths in it before the archive library believes them.
bool OnSetPolicy(const std::vector<unsigned char>& request, std::vector<unsigned char>& response)
{
    std::cout << "a policy came, in " << request.size() << " bytes" << std::endl;

    const int accepted = 0;
    std::stringstream answer;
    boost::archive::binary_oarchive(answer) << accepted;
    kel::TCIpcSerializationUtil::ConvertData(answer, response);
    return true;
}

} // namespace

int main()
{
    kel::TCDbusServer server(false);
    server.SetCallback(kSetPolicy, &OnSetPolicy);

    // Calls from applications arrive in the default main context.
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
}
