/*
 * Function results: the answer to a call, a success flag and typed values.
 *
 * A service's method handler fills the one it is given; an app reads the one that nira_ipc_proxy_call_function
 * returned and frees it. Conventions: nira_ipc_common.h. Unless said otherwise a function does what its namesake of
 * nira_ipc_bundle.h does.
 */
#ifndef NIRA_IPC_FUNC_RESULT_H
#define NIRA_IPC_FUNC_RESULT_H

#include "nira_ipc_common.h"

NIRA_IPC_BEGIN_C

/* Returns a new result: flag false, no values. Throws std::bad_alloc when memory is short.
 * Free it with nira_ipc_func_result_free. */
NIRA_IPC_EXPORT void* nira_ipc_func_result_new(void);

/* Destroys the result together with everything that its getters returned. */
NIRA_IPC_EXPORT void nira_ipc_func_result_free(void* result);

/* Sets the success flag: any value but 0 is true. */
NIRA_IPC_EXPORT void nira_ipc_func_result_set_result(void* result, int flag);

/* Returns the success flag: false for a null handle, and for a call that was refused, timed out or was cut off. */
NIRA_IPC_EXPORT bool nira_ipc_func_result_get_result(void* result);

NIRA_IPC_EXPORT void nira_ipc_func_result_add_param_int(void* result, const char* key, int value);
NIRA_IPC_EXPORT void nira_ipc_func_result_add_param_string(void* result, const char* key, const char* value);
NIRA_IPC_EXPORT void nira_ipc_func_result_add_param_int_array(void* result, const char* key, int* values,
                                                              unsigned int count);
NIRA_IPC_EXPORT void nira_ipc_func_result_add_param_string_array(void* result, const char* key, const char** values,
                                                                 unsigned int count);

/* Writes the integer to `*value`, or -1 when the key is missing, holds another type, or the handle is null.
 * Always returns true. */
NIRA_IPC_EXPORT bool nira_ipc_func_result_get_param_int(void* result, const char* key, int* value);

NIRA_IPC_EXPORT bool nira_ipc_func_result_get_param_string(void* result, const char* key, char** value);
NIRA_IPC_EXPORT int* nira_ipc_func_result_get_param_int_array(void* result, const char* key, unsigned int* count);
NIRA_IPC_EXPORT char** nira_ipc_func_result_get_param_string_array(void* result, const char* key, unsigned int* count);

NIRA_IPC_END_C

#ifdef __cplusplus
namespace Json {
class Value;
}

/* Returns a copy of the result's JSON form, { "result": flag, "params": { key: { "type", "value" } } }, or a null value
 * for a null handle. C++ only, with C++ linkage; include <json/json.h> to use it. The value refers to names inside this
 * library, which has to stay loaded for as long. */
NIRA_IPC_EXPORT Json::Value nira_ipc_func_result_get_json(void* result);
#endif

#endif /* NIRA_IPC_FUNC_RESULT_H */
