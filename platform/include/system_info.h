#pragma once

/* The device's system-information service. ../README.md states the contract. */

#ifdef __cplusplus
extern "C" {
#endif

/* What can be asked for. A device may know more keys than these. */
typedef enum {
    SYSTEM_INFO_KEY_UNKNOWN = -1,
    SYSTEM_INFO_KEY_MODEL = 0,            /* string */
    SYSTEM_INFO_KEY_PLATFORM_NAME = 1,    /* string */
    SYSTEM_INFO_KEY_PLATFORM_VERSION = 2, /* string */
    SYSTEM_INFO_KEY_BUILD_STRING = 3,     /* string */
    SYSTEM_INFO_KEY_KERNEL_NAME = 4,      /* string */
    SYSTEM_INFO_KEY_KERNEL_RELEASE = 5,   /* string */
    SYSTEM_INFO_KEY_MACHINE = 6,          /* string */
    SYSTEM_INFO_KEY_CORES = 7,            /* int */
    SYSTEM_INFO_KEY_MEMORY_MIB = 8,       /* int */
    SYSTEM_INFO_KEY_PAGE_SIZE = 9,        /* int, bytes */
    SYSTEM_INFO_KEY_LAST = 0x7fffffff     /* makes every int a value of the type */
} system_info_key_e;

/*
 * Reads a number. Returns 0 on success, another value otherwise; what *value holds then is not
 * defined. Callable from any thread.
 */
int system_info_get_value_int(system_info_key_e key, int* value);

/*
 * Reads a text. Returns 0 on success, with *value newly allocated and to be released by the caller
 * with free(); another value otherwise. Callable from any thread.
 */
int system_info_get_value_string(system_info_key_e key, char** value);

#ifdef __cplusplus
}
#endif
