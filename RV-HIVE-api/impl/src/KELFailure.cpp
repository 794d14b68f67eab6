#include <kel/KELFailure.h>

#include <memory>

#include <kel/KELLocks.h>

#include "KELFailureNote.h"

namespace kel {

namespace {

// The error of a failure that is forgotten stays until the next one has come.
thread_local EFailure lastKind = EFailure::None;
void FreeError(void* error) { g_error_free(static_cast<GError*>(error)); }
GPrivate lastError = G_PRIVATE_INIT(&FreeError);

TCMutex startMutex;
EFailure startKind KEL_GUARDED_BY(startMutex) = EFailure::NoBus;
GError* pStartError KEL_GUARDED_BY(startMutex) = nullptr;

// By name, for the words are the bus's own: one bus's differ from another's.
EFailure KindOfAnswer(int code)
{
    switch (code) {
    case G_DBUS_ERROR_SERVICE_UNKNOWN:
    case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
        return EFailure::NotOwned;
    case G_DBUS_ERROR_ACCESS_DENIED:
        return EFailure::Denied;
    case G_DBUS_ERROR_TIMEOUT:
    case G_DBUS_ERROR_TIMED_OUT:
        return EFailure::TimedOut;
    case G_DBUS_ERROR_UNKNOWN_METHOD:
    case G_DBUS_ERROR_UNKNOWN_OBJECT:
    case G_DBUS_ERROR_UNKNOWN_INTERFACE:
        return EFailure::NotHandled;
    case G_DBUS_ERROR_NO_REPLY: // comes from the bus: our own time is over before the bus's is
    case G_DBUS_ERROR_DISCONNECTED:
        return EFailure::Ended;
    default: // whoever was to be started was not
        return code >= G_DBUS_ERROR_SPAWN_EXEC_FAILED && code <= G_DBUS_ERROR_SPAWN_NO_MEMORY
                   ? EFailure::NotOwned
                   : EFailure::Other;
    }
}

} // namespace

EFailure KindOf(const GError& error)
{
    if (error.domain == G_DBUS_ERROR) {
        return KindOfAnswer(error.code);
    }
    if (error.domain == G_IO_ERROR && error.code == G_IO_ERROR_TIMED_OUT) {
        return EFailure::TimedOut;
    }
    if (error.domain == G_IO_ERROR && error.code == G_IO_ERROR_CLOSED) {
        return EFailure::Ended;
    }
    return EFailure::Other;
}

TSFailure Describe(EFailure kind, const GError* error)
{
    TSFailure failure;
    failure.m_kind = kind;
    if (kind == EFailure::None || error == nullptr) {
        return failure;
    }
    const std::unique_ptr<char, decltype(&g_free)> name(g_dbus_error_get_remote_error(error),
                                                        &g_free);
    if (name != nullptr) {
        failure.m_errorName = name.get();
    }
    // The name stands before a text that has come over the bus.
    const std::unique_ptr<GError, decltype(&g_error_free)> plain(g_error_copy(error),
                                                                 &g_error_free);
    g_dbus_error_strip_remote_error(plain.get());
    failure.m_text = plain->message;
    return failure;
}

TSFailure LastFailure()
{
    return Describe(lastKind, static_cast<GError*>(g_private_get(&lastError)));
}

void ClearFailure() { lastKind = EFailure::None; }

void NoteFailure(EFailure kind)
{
    lastKind = kind;
    g_private_replace(&lastError, nullptr);
}

void NoteFailure(EFailure kind, TCGlibError& error)
{
    lastKind = kind;
    g_private_replace(&lastError, error.Release());
}

void NoteFailure(TCGlibError& error) { NoteFailure(KindOf(error.Get()), error); }

void KeepFailedStart()
{
    const TCLock start(startMutex);
    startKind = lastKind;
    g_clear_error(&pStartError);
    pStartError = g_error_copy(static_cast<GError*>(g_private_get(&lastError)));
}

void NoteFailedStart()
{
    const TCLock start(startMutex);
    lastKind = startKind;
    g_private_replace(&lastError, pStartError != nullptr ? g_error_copy(pStartError) : nullptr);
}

} // namespace kel
