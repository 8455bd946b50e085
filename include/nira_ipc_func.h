/*
 * Function calls: a method's name and its typed parameters.
 *
 * An app builds one and passes it to nira_ipc_proxy_call_function or nira_ipc_proxy_call_function_async; a service's
 * method handler reads one. Conventions: nira_ipc_common.h. Unless said otherwise a function does what its namesake of
 * nira_ipc_bundle.h does.
 */
#ifndef NIRA_IPC_FUNC_H
#define NIRA_IPC_FUNC_H

#include "nira_ipc_common.h"

NIRA_IPC_BEGIN_C

/* Returns a new call of the method `name`, or null when memory is short. A null name is logged and gives a call whose
 * name is empty. Free it with nira_ipc_func_free. */
NIRA_IPC_EXPORT void* nira_ipc_func_new(const char* name);

/* Destroys the call together with everything that its getters returned. */
NIRA_IPC_EXPORT void nira_ipc_func_free(void* func);

NIRA_IPC_EXPORT void nira_ipc_func_add_param_int(void* func, const char* key, int value);
NIRA_IPC_EXPORT void nira_ipc_func_add_param_string(void* func, const char* key, const char* value);
NIRA_IPC_EXPORT void nira_ipc_func_add_param_int_array(void* func, const char* key, int* values, unsigned int count);
NIRA_IPC_EXPORT void nira_ipc_func_add_param_string_array(void* func, const char* key, const char** values,
                                                          unsigned int count);

/* Writes the method's name to `*name`; true for every call. The text belongs to the call. */
NIRA_IPC_EXPORT bool nira_ipc_func_get_func_name(void* func, char** name);

/* Writes the integer to `*value`, or -1 when the key is missing or holds another type. Unlike the bundle's, returns
 * false whenever -1 was written, also for a stored -1. */
NIRA_IPC_EXPORT bool nira_ipc_func_get_param_int(void* func, const char* key, int* value);

NIRA_IPC_EXPORT bool nira_ipc_func_get_param_string(void* func, const char* key, char** value);
NIRA_IPC_EXPORT int* nira_ipc_func_get_param_int_array(void* func, const char* key, unsigned int* count);
NIRA_IPC_EXPORT char** nira_ipc_func_get_param_string_array(void* func, const char* key, unsigned int* count);

NIRA_IPC_END_C

#endif /* NIRA_IPC_FUNC_H */
