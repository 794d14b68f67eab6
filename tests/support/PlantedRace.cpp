// A program with a deliberate data race, between a message callback that GDBus runs and the main
// thread. ThreadSanitizer has to report it.

#include <cstdio>

#include <kel/KELDbusServer.h>

#include "support/HostLoop.h"
#include "support/PrivateBus.h"
#include "support/RawPeer.h"

int main()
{
    using namespace kel::test;

    PrivateBus bus;
    HostLoop loop;
    kel::TCDbusServer server(false);
    RawPeer peer(bus);
    peer.SetTarget(server.GetUniqueName());
    int plain = 0;
    server.SetCallback(1, [&plain](const TBytes&, TBytes&) {
        ++plain;
        return true;
    });

    for (int i = 0; i < 100; ++i) {
        peer.Post("Send", Body(SendBytes(1, 1)), true);
        ++plain;
    }
    peer.Settle();
    printf("counted to %d unnoticed\n", plain);
    return 0;
}
