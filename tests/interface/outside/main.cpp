// An application from outside: built against the installed tree with nothing but the flags that
// the tree itself gives, and run where there is no bus.

#include "all-headers.h"

#include <cstdio>
#include <sstream>
#include <vector>

namespace {

// Derives from an end of the channel, as a user may: needs its tables and thunks.
class TCMyClient : public kel::TCDbusClient
{
public:
    TCMyClient() : kel::TCDbusClient(true) {}
};

class TCMyUser : public kel::TIDestroyCallback
{
public:
    void OnDestroy() override { puts("told"); }
};

// Told when the static objects are gone: it must not be one of them.
TCMyUser& user = *new TCMyUser;

int Fail(const char* what)
{
    fprintf(stderr, "%s\n", what);
    return 1;
}

} // namespace

int main()
{
    kel::TCDebug::m_instance.EnableStdoutLog(true);

    std::vector<unsigned char> bytes{1, 0, 2};
    std::stringstream stream;
    kel::TCIpcSerializationUtil::ConvertData(bytes, stream);
    if (stream.str().size() != bytes.size()) {
        return Fail("bytes are lost");
    }

    if (!kel::TCDeactivator::RegisterUser(user)) {
        return Fail("the user is refused");
    }

    TCMyClient client;
    kel::IDbusClient& channel = client;
    const auto callback
        = [](const std::vector<unsigned char>&, std::vector<unsigned char>&) { return true; };
    if (channel.IsReady() || !channel.SetCallback(1, callback) || !channel.UnSetCallback(1)) {
        return Fail("the client does not work");
    }
    const kel::TCDbusServer server(true);

    const boost::shared_ptr<kel::IControl> control = kel::api::GetControl();
    if (!control || control->SetPolicy("policy") != -1) {
        return Fail("there is an answer without a bus");
    }
    return 0;
}
