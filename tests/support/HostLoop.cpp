#include "support/HostLoop.h"

#include <future>
#include <memory>

#include <glib.h>

namespace kel::test {

namespace {

gboolean CallOnce(gpointer function)
{
    (*static_cast<std::function<void()>*>(function))();
    return G_SOURCE_REMOVE;
}

void Destroy(gpointer function)
{
    const std::unique_ptr<std::function<void()>> owned(
        static_cast<std::function<void()>*>(function));
}

void Post(int priority, std::function<void()> function)
{
    auto owned = std::make_unique<std::function<void()>>(std::move(function));
    GSource* const source = g_idle_source_new();
    g_source_set_priority(source, priority);
    g_source_set_callback(source, &CallOnce, owned.release(), &Destroy);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

} // namespace

HostLoop::HostLoop() : m_pLoop(g_main_loop_new(nullptr, FALSE))
{
    m_thread = std::thread([loop = m_pLoop] { g_main_loop_run(loop); });
}

HostLoop::~HostLoop()
{
    // From inside: quitting a loop that does not run yet is lost.
    PostToHostLoop([loop = m_pLoop] { g_main_loop_quit(loop); });
    m_thread.join();
    g_main_loop_unref(m_pLoop);
}

void HostLoop::Run(const std::function<void()>& function) { m_Run(G_PRIORITY_DEFAULT, function); }

void HostLoop::Settle()
{
    m_Run(G_PRIORITY_LOW, [] {});
}

void HostLoop::m_Run(int priority, const std::function<void()>& function)
{
    const auto done = std::make_shared<std::promise<void>>();
    Post(priority, [&function, done] {
        function();
        done->set_value();
    });
    done->get_future().wait();
}

void PostToHostLoop(std::function<void()> function)
{
    Post(G_PRIORITY_DEFAULT, std::move(function));
}

} // namespace kel::test
