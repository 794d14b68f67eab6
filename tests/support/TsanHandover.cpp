// In ThreadSanitizer builds alone, around every g_source_set_callback() of ours: tells the
// sanitizer that what happened before a source was set up happens before its callback runs. The
// lock that really orders the two is inside GLib, where the sanitizer does not look.

#include <memory>

#include <glib.h>

#include "support/TsanHandover.h"

extern "C" {
void __real_g_source_set_callback(GSource* source, GSourceFunc function, gpointer data,
                                  GDestroyNotify notify);
void __wrap_g_source_set_callback(GSource* source, GSourceFunc function, gpointer data,
                                  GDestroyNotify notify);
}

namespace {

struct TSHandover
{
    GSourceFunc m_function;
    gpointer m_data;
    GDestroyNotify m_notify;
};

gboolean Run(gpointer handover)
{
    kel::test::TakeOver(handover);
    const auto* const call = static_cast<TSHandover*>(handover);
    const gboolean again = call->m_function(call->m_data);
    kel::test::HandOver(handover);
    return again;
}

void Destroy(gpointer handover)
{
    kel::test::TakeOver(handover);
    const std::unique_ptr<TSHandover> call(static_cast<TSHandover*>(handover));
    if (call->m_notify != nullptr) {
        call->m_notify(call->m_data);
    }
}

} // namespace

void __wrap_g_source_set_callback(GSource* source, GSourceFunc function, gpointer data,
                                  GDestroyNotify notify)
{
    auto call = std::make_unique<TSHandover>(TSHandover{function, data, notify});
    kel::test::HandOver(call.get());
    __real_g_source_set_callback(source, &Run, call.release(), &Destroy);
}
