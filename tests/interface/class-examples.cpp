// One short example for each page of the reference: the comments of the headers name the parts.
// Compiled, and never run.

#include <iostream>
#include <set>
#include <sstream>

#include <kel/KELBufferProperties.h>
#include <kel/KELCachingUtils.h>
#include <kel/KELCallbacksProxy.h>
#include <kel/KELDbusClient.h>
#include <kel/KELDbusServer.h>
#include <kel/KELDeactivator.h>
#include <kel/KELDebug.h>
#include <kel/KELDirsManager.h>
#include <kel/KELFailure.h>
#include <kel/KELFileSystem.h>
#include <kel/KELIpcSerializationUtil.h>
#include <kel/KELIssueReport.h>
#include <kel/KELKernelLog.h>
#include <kel/api.h>

namespace class_examples {

void Control()
{
    //! [IControl]
    const boost::shared_ptr<kel::IControl> control = kel::api::GetControl();
    if (control && control->SetPolicy("<policy/>") == -1) {
        std::cerr << "no agent has answered\n";
    }
    //! [IControl]
}

void Failure()
{
    //! [LastFailure]
    const boost::shared_ptr<kel::IControl> control = kel::api::GetControl();
    if (control && control->SetPolicy("<policy/>") == -1) {
        const kel::TSFailure failure = kel::LastFailure();
        if (failure.m_kind == kel::EFailure::Denied) {
            std::cerr << "this user may not: " << failure.m_text << "\n";
        }
    }
    //! [LastFailure]
}

void Callbacks()
{
    //! [ICallbacks]
    const boost::shared_ptr<kel::ICallbacks> callbacks = kel::TCCallbacksProxy::Instance();
    callbacks->SetPolicyUpdateCb([] { std::cout << "the policy has changed\n"; });
    // Runs while this thread iterates its main context (g_main_loop_run).
    callbacks->ResetPolicyUpdateCb();
    //! [ICallbacks]
}

//! [IDbus]
void Listen(kel::IDbus& end)
{
    constexpr int kType = 17; // of your own: 2 and 4 are taken
    end.SetCallback(
        kType, [](const std::vector<unsigned char>& request, std::vector<unsigned char>& response) {
            response = request;
            return true; // handled
        });
}
//! [IDbus]

//! [TCDbus]
std::string NameOnTheBus(kel::TCDbus& end)
{
    return end.IsReady() ? end.GetUniqueName() : "not ready";
}
//! [TCDbus]

void Client()
{
    //! [TCDbusClient]
    kel::TCDbusClient client(true); // of the test channel, beside the one in service
    kel::IDbusClient& channel = client;
    std::vector<unsigned char> response;
    if (!channel.SendMessage(17, {1, 2, 3}, response, false)) {
        std::cerr << "declined, or no answer\n";
    }
    //! [TCDbusClient]
}

void Provider()
{
    //! [TCDbusClientProvider]
    const boost::shared_ptr<kel::IDbusClient> client = kel::TCDbusClientProvider::Get(false);
    std::vector<unsigned char> response;
    client->SendMessage(17, {1, 2, 3}, response, true); // nobody waits for the answer
    //! [TCDbusClientProvider]
}

void Server()
{
    //! [TCDbusServer]
    kel::TCDbusServer server(false);
    kel::IDbusServer& channel = server;
    // On a thread of its own, while the main context of this one is iterated:
    const auto [handled, failed] = channel.SendMessage(kel::ICallbacks::POLICY_UPDATE, {}, 5000);
    std::cout << handled << " have heard of it, " << failed << " have not\n";
    //! [TCDbusServer]
}

void Clients(kel::TCDbusServer& server)
{
    //! [SendToEach]
    for (const kel::TSClientOutcome& outcome :
         server.SendToEach(kel::ICallbacks::POLICY_UPDATE, {}, 5000)) {
        if (outcome.m_failure.m_kind == kel::EFailure::TimedOut) {
            std::cout << outcome.m_uniqueName << " has not answered\n";
        }
    }
    for (const kel::TSRegisteredClient& client : server.Clients(16)) {
        std::cout << client.m_uniqueName << " asks for " << client.m_numberOfTypes << " types\n";
    }
    //! [SendToEach]
}

//! [TCDeactivator]
class TCFarewell : public kel::TIDestroyCallback
{
public:
    void OnDestroy() override { std::puts("the library is taken down"); }
};

void AskToBeTold()
{
    static TCFarewell& user = *new TCFarewell; // never destroyed: it is called at exit
    kel::TCDeactivator::RegisterUser(user);
    kel::TCDeactivator::RegisterDBUS(&kel::TCCallbacksProxy::Destroy);
}
//! [TCDeactivator]

void Debug()
{
    //! [TCDebug]
    kel::TCDebug& log = kel::TCDebug::m_instance;
    log.EnableFileLog(true); // "/tmp/kel_<program>_<pid>.log"
    log.External("my::Class", __func__, __LINE__, "%d requests wait", 3);
    //! [TCDebug]
}

void Dirs()
{
    //! [TCDirsManager]
    kel::TCDirsManager::Initialize(); // once, when an agent starts
    std::cout << kel::TCDirsManager::GetPolicyXmlPath() << " applies, in the mode "
              << kel::TCDirsManager::GetKELMode() << '\n';
    //! [TCDirsManager]
}

void Caching()
{
    //! [TCHtCachingUtils]
    std::string model;
    if (kel::TCHtCachingUtils::GetSystemInfoKeyCached(SYSTEM_INFO_KEY_MODEL, model)) {
        std::cout << "this is a " << model << '\n';
    }
    //! [TCHtCachingUtils]
}

void Files()
{
    //! [TSFileSystem]
    boost::filesystem::path free;
    if (kel::TSFileSystem::MakeDir("/tmp/reports", false)
        && kel::TSFileSystem::GenerateUniqueName("/tmp/reports", "trace.txt", free)) {
        kel::TSFileSystem::CopyFile("/tmp/trace.txt", free, false);
    }
    //! [TSFileSystem]
}

void Serialization()
{
    //! [TCIpcSerializationUtil]
    std::stringstream archive("what an archive has written");
    std::vector<unsigned char> payload;
    kel::TCIpcSerializationUtil::ConvertData(archive, payload); // to the channel
    std::stringstream read;
    kel::TCIpcSerializationUtil::ConvertData(payload, read); // and from it
    //! [TCIpcSerializationUtil]
}

void Buffers()
{
    //! [TSBufferProperties]
    static unsigned int volatile counter = 0; // shared by all threads
    kel::TSBufferProperties buffer;
    buffer.Init();
    buffer.SetBufferId(&counter);
    std::set<kel::TSBufferProperties*, kel::TSBufferProperties> byId(buffer);
    byId.insert(&buffer);
    //! [TSBufferProperties]
}

void Report()
{
    //! [Request_NDF]
    char process[] = "player";
    char thread[] = "decoder";
    if (Request_NDF(ONCE_ONLY, process, thread, "/tmp/player.trace") == -1) {
        std::cerr << "no agent has made the directory\n";
    }
    //! [Request_NDF]
}

void KernelLog()
{
    //! [DumpKernelLog]
    std::vector<std::string> lines; // on a thread of its own: it stays in the idle class
    if (DumpKernelLog(lines, DUMP_CONDITION_NONE)) {
        std::cout << lines.size() << " new lines\n";
    }
    //! [DumpKernelLog]
}

} // namespace class_examples
