// Logs a line and stores a value, and tells whether it has rights that its caller has not.

#include <sys/auxv.h>

#include <cstdio>

#include <dlog.h>
#include <vconf.h>

int main()
{
    std::printf("%s\n", getauxval(AT_SECURE) != 0 ? "secure" : "plain");
    __dlog_print(LOG_ID_SYSTEM, DLOG_ERROR, "KEL", "%s", "line");
    return vconf_set_str("memory/key", "value") == 0 ? 0 : 1;
}
