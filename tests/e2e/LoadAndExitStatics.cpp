// A user's program whose static objects, and functions that run before and after them, use the
// library. What comes first and last is said on standard output.

#include "LoadAndExitTrace.h"

#include <cstdlib>

#include <kel/KELDeactivator.h>
#include <kel/KELDebug.h>
#include <kel/api.h>

extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* library);

namespace {

void TraceControl(const char* where)
{
    Trace(std::string(where) + (kel::api::GetControl() ? ": a control object" : ": none"));
}

void RunAtDeactivation() { Trace("function at deactivation"); }

class TCUser : public kel::TIDestroyCallback
{
public:
    void OnDestroy() override { Trace("user at deactivation"); }
};

// Constructed before main(), destroyed after it.
struct TSEarly
{
    TSEarly()
    {
        kel::TCDebug::m_instance.EnableStdoutLog(true);
        kel::TCDebug::m_instance.EnablePerfLog(true);
        m_held = kel::api::GetControl();
        Trace(m_held ? "constructor: a control object" : "constructor: none");
        kel::TCDeactivator::RegisterDBUS(&RunAtDeactivation);
        Trace(kel::TCDeactivator::RegisterUser(m_user) ? "user registered" : "user refused");
    }

    ~TSEarly()
    {
        TraceControl("destructor");
        Trace("destructor: answer " + std::to_string(m_held->SetPolicy("policy")));
    }

    boost::shared_ptr<kel::IControl> m_held;
    TCUser& m_user = *new TCUser; // registered, so it outlives everything
};

TSEarly early;

void AtExitOfMain() { TraceControl("atexit of main"); }

// Among the last things that happen in the process.
void AfterTheLibraries(void*)
{
    TraceControl("after the libraries");
    static TCUser& late = *new TCUser;
    Trace(kel::TCDeactivator::RegisterUser(late) ? "user registered" : "user refused");
    kel::TCDeactivator::UnregisterUser(late);
}

// Runs before the initialisers of every shared library. Its handler belongs to no library, so it
// runs after the ends of all of them.
void BeforeTheLibraries() { __cxa_atexit(&AfterTheLibraries, nullptr, nullptr); }
__attribute__((section(".preinit_array"), used)) void (*const beforeTheLibraries)()
    = &BeforeTheLibraries;

// The last of the program's own functions.
__attribute__((destructor)) void AtTheEnd() { TraceControl("end of the program"); }

} // namespace

int main()
{
    atexit(&AtExitOfMain);
    Trace(kel::TCDebug::m_instance.m_stdoutLogEnabled && kel::TCDebug::m_instance.m_perfLogEnabled
              ? "main: the switches are as the constructor left them"
              : "main: the switches are lost");
    TraceControl("main");
    return 0;
}
