#pragma once

/* The device's key-value configuration store. ../README.md states the contract. */

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Reads a string. Returns a newly allocated text, to be freed by the caller, or NULL when the key
 * has none. Callable from any thread.
 */
char* vconf_get_str(const char* in_key);

/* Stores a string. Returns 0 on success, a negative value otherwise. Callable from any thread. */
int vconf_set_str(const char* in_key, const char* strval);

#ifdef __cplusplus
}
#endif
