// A device without a USB service: the other functions of a platform, as small as they can be. Its
// log lines go to standard output, as "priority message".

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <dlog.h>
#include <system_info.h>
#include <vconf.h>

#define KEL_TEST_EXPORT extern "C" __attribute__((visibility("default")))

KEL_TEST_EXPORT int __dlog_print(log_id_t, int priority, const char*, const char* format, ...)
{
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    const char* const message = strstr(line, ") > ");
    return printf("%d %s\n", priority, message != nullptr ? message + strlen(") > ") : line);
}

KEL_TEST_EXPORT char* vconf_get_str(const char*) { return nullptr; }

KEL_TEST_EXPORT int vconf_set_str(const char*, const char*) { return -1; }

KEL_TEST_EXPORT int system_info_get_value_int(system_info_key_e, int*) { return -1; }

KEL_TEST_EXPORT int system_info_get_value_string(system_info_key_e, char**) { return -1; }
