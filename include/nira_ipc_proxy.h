/*
 * Proxies: the app's end.
 *
 * An app makes a proxy, registers its callbacks, connects to a service's port under its application id, calls methods,
 * sends texts and bundles, and receives the service's pushes. There is no automatic reconnection: after a "close" the
 * app disconnects and connects again, with the same proxy or a new one. Conventions: nira_ipc_common.h.
 *
 * Callbacks may be registered, replaced and removed at any time, also while the service talks: a call uses a function
 * and its user data from one and the same registration, and once an unregister function returned, no new call of the
 * old one begins (one that had begun may still run). All run on the proxies' workers.
 */
#ifndef NIRA_IPC_PROXY_H
#define NIRA_IPC_PROXY_H

#include "nira_ipc_common.h"

NIRA_IPC_BEGIN_C

typedef enum NIRA_IPC_PROXY_CALLBACK_TYPE {
  NIRA_IPC_PROXY_CALLBACK_OPEN = 0,   /* the connection is established: "open" */
  NIRA_IPC_PROXY_CALLBACK_CLOSE = 1,  /* the service closed it: "close". Not raised by disconnect or free. */
  NIRA_IPC_PROXY_CALLBACK_ERROR = 2,  /* reserved, never raised */
  NIRA_IPC_PROXY_CALLBACK_MESSAGE = 3 /* the service pushed this text */
} NIRA_IPC_PROXY_CALLBACK_TYPE;

typedef void (*nira_ipc_proxy_callback)(const char* text, void* user_data);

/* The service pushed a bundle. */
typedef void (*nira_ipc_proxy_bundle_handler)(void* bundle, void* user_data);

/* Returns a new proxy, or null when memory is short. Free it with nira_ipc_proxy_free. */
NIRA_IPC_EXPORT void* nira_ipc_proxy_new(void);

/* Connects to the stub on TCP port `port` of this device and registers there under `app_id`. Returns 1 once the service
 * has accepted the registration, otherwise 0. Blocks as long as that takes, usually a few milliseconds: up to 5 seconds
 * for a service that does not listen yet, then up to 20 for the answer to the registration (a service that refuses it,
 * because the secrets differ, does not answer). After a 0 the proxy can be connected again; on a proxy that is
 * connected, or was closed by the service and not yet disconnected, it is an error that changes nothing. */
NIRA_IPC_EXPORT int nira_ipc_proxy_connect(void* proxy, int port, const char* app_id);

/* Closes the connection, if there is one. Calls that wait are answered at once (see nira_ipc_proxy_call_function), and
 * no close callback comes. Returns when the socket is gone; callbacks may still be running then. */
NIRA_IPC_EXPORT void nira_ipc_proxy_disconnect(void* proxy);

/* Disconnects and destroys the proxy. Blocks until all its callbacks have returned, those of the asynchronous calls
 * that it cut off included; none runs afterwards. Called inside one of them it waits for the others only, and the
 * proxy goes when the calling one returns. */
NIRA_IPC_EXPORT void nira_ipc_proxy_free(void* proxy);

/* Sends a text and blocks until the service has taken it, at most 20 seconds. */
NIRA_IPC_EXPORT void nira_ipc_proxy_send_message(void* proxy, const char* text);

/* The same for a bundle, which stays yours. */
NIRA_IPC_EXPORT void nira_ipc_proxy_send_bundle(void* proxy, void* bundle);

/* Calls a method and blocks for its answer, at most 20 seconds. Returns a function result (nira_ipc_func_result.h) that
 * is yours to free; when the call was refused (not connected), timed out or was cut off, its flag is false and it is
 * empty. Null when proxy or func is null. `func` stays yours and can be used again. */
NIRA_IPC_EXPORT void* nira_ipc_proxy_call_function(void* proxy, void* func);

/* Calls a method without waiting. `callback` runs exactly once, on a worker, with the reply as JSON text:
 *   {"result":{"result":true,"params":{...}},"uniqueKey":k,"timestamp":t,"request_type":"method"}   the answer
 *   {"message":"Timeout","stat":"fail","uniqueKey":k}                                     none within 20 seconds
 *   {"message":"Unexpected disconnection","stat":"fail","uniqueKey":k}            the connection or the proxy went
 *   ""                                                                                     refused: not connected
 * `func` stays yours and may be freed at once. `callback` may be null. */
NIRA_IPC_EXPORT void nira_ipc_proxy_call_function_async(void* proxy, void* func, nira_ipc_proxy_callback callback,
                                                        void* user_data);

/* Sets the callback for one type, instead of any earlier one; a null callback removes it. A type other than the four is
 * logged and ignored. To see the "open" event, register before connecting. */
NIRA_IPC_EXPORT void nira_ipc_proxy_register_callback(void* proxy, NIRA_IPC_PROXY_CALLBACK_TYPE type,
                                                      nira_ipc_proxy_callback callback, void* user_data);

NIRA_IPC_EXPORT void nira_ipc_proxy_register_bundle_handler(void* proxy, nira_ipc_proxy_bundle_handler handler,
                                                            void* user_data);

/* Removes the bundle handler, whichever it is: `handler` is only logged. */
NIRA_IPC_EXPORT void nira_ipc_proxy_unregister_bundle_handler(void* proxy, nira_ipc_proxy_bundle_handler handler);

NIRA_IPC_END_C

#endif /* NIRA_IPC_PROXY_H */
