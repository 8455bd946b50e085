/*
 * Bundles: typed values under text keys, sent as one message in either direction.
 *
 * Setting a key again replaces its value, whatever the types. Conventions: nira_ipc_common.h.
 */
#ifndef NIRA_IPC_BUNDLE_H
#define NIRA_IPC_BUNDLE_H

#include "nira_ipc_common.h"

NIRA_IPC_BEGIN_C

/* Returns a new, empty bundle, or null when memory is short. Free it with nira_ipc_bundle_free. */
NIRA_IPC_EXPORT void* nira_ipc_bundle_new(void);

/* Destroys the bundle together with every text, array and block that its getters returned. */
NIRA_IPC_EXPORT void nira_ipc_bundle_free(void* bundle);

NIRA_IPC_EXPORT void nira_ipc_bundle_add_param_int(void* bundle, const char* key, int value);
NIRA_IPC_EXPORT void nira_ipc_bundle_add_param_string(void* bundle, const char* key, const char* value);

/* `count` is the number of elements, and may be 0; `values` may not be null even then. */
NIRA_IPC_EXPORT void nira_ipc_bundle_add_param_int_array(void* bundle, const char* key, int* values,
                                                         unsigned int count);

/* As above; no element may be null. */
NIRA_IPC_EXPORT void nira_ipc_bundle_add_param_string_array(void* bundle, const char* key, const char** values,
                                                            unsigned int count);

/* Adds a block of `size` bytes, which travels as Base64. `size` may be 0; `data` may not be null even then. */
NIRA_IPC_EXPORT void nira_ipc_bundle_add_param_binary(void* bundle, const char* key, const void* data,
                                                      unsigned int size);

/* Writes the integer to `*value`, or -1 when the key is missing or holds another type.
 * Returns true for every bundle, also then: a missing key and a stored -1 look the same. */
NIRA_IPC_EXPORT bool nira_ipc_bundle_get_param_int(void* bundle, const char* key, int* value);

/* Writes the text to `*value`, or null when the key is missing or holds another type. Returns whether it is non-null.
 * Repeated calls return the same pointer until the text changes; it is then freed and replaced. A text that is the
 * beginning of the one returned before counts as unchanged. */
NIRA_IPC_EXPORT bool nira_ipc_bundle_get_param_string(void* bundle, const char* key, char** value);

/* Writes the block to `*data` and its length in bytes to `*size`, or null to `*data` when the key is missing or holds
 * another type. Returns whether `*data` is non-null. The block is decoded once: later calls for the key return the same
 * block, also after the key was set again, and leave `*size` untouched. A NUL follows the last byte. */
NIRA_IPC_EXPORT bool nira_ipc_bundle_get_param_binary(void* bundle, const char* key, void** data, unsigned int* size);

/* Returns a new array on each call and writes the number of elements to `*count`. A missing key or another type gives
 * count 0; the pointer is then not to be read. Null when `key` or `count` is null. */
NIRA_IPC_EXPORT int* nira_ipc_bundle_get_param_int_array(void* bundle, const char* key, unsigned int* count);

/* Returns a new array of texts on each call and writes their number to `*count`; null and 0 when there are none, when
 * the key is missing or when it holds another type. */
NIRA_IPC_EXPORT char** nira_ipc_bundle_get_param_string_array(void* bundle, const char* key, unsigned int* count);

NIRA_IPC_END_C

#endif /* NIRA_IPC_BUNDLE_H */
