/*
 * Stubs: the service's end.
 *
 * A service starts a stub on a TCP port, registers its handlers, and pushes texts and bundles to the apps that have
 * registered, by application id. The port is open on the loopback interface only, on all interfaces when the device
 * is in debug mode. Conventions: nira_ipc_common.h.
 *
 * Handlers and callbacks may be registered, replaced and removed at any time, also while clients talk: a call uses a
 * function and its user data from one and the same registration, and once an unregister function returned, no new call
 * of the old one begins (one that had begun may still run).
 */
#ifndef NIRA_IPC_STUB_H
#define NIRA_IPC_STUB_H

#include "nira_ipc_common.h"

NIRA_IPC_BEGIN_C

typedef enum NIRA_IPC_STUB_CALLBACK_TYPE {
  /* A connection opened: first "open", second null, on the stub's service thread. And a client registered: both texts
   * are its application id, on a worker. (A registration without an id is refused, and told as first "not found".) */
  NIRA_IPC_STUB_CALLBACK_OPEN = 0,
  /* A connection closed: first "close", second its application id, or "" if it had none. On the service thread. */
  NIRA_IPC_STUB_CALLBACK_CLOSE = 1,
  /* A text arrived: first the text, second the sender's application id. On a worker. */
  NIRA_IPC_STUB_CALLBACK_MESSAGE = 2
} NIRA_IPC_STUB_CALLBACK_TYPE;

/* The stub's service thread lets clients in and tells of those that come and go: a callback of the types 0 and 1 that
 * blocks there holds up the clients that are about to. Those that are connected are served meanwhile. */
typedef void (*nira_ipc_stub_callback)(const char* first, const char* second, void* user_data);

/* A bundle from the app `caller` arrived. On a worker. */
typedef void (*nira_ipc_stub_bundle_handler)(void* bundle, const char* caller, void* user_data);

/* The app `caller` calls a method: read the call `func` (nira_ipc_func_get_*), fill `result`
 * (nira_ipc_func_result_set_result, _add_param_*). The reply leaves when the handler returns; the caller waits 20
 * seconds for it at most. On a worker. */
typedef void (*nira_ipc_stub_method_handler)(void* func, const char* caller, void* result, void* user_data);

/* Starts a stub on TCP port `port` and returns its handle, or null when memory or threads are short. When it returns,
 * the port accepts connections; if it cannot be listened on (in use, not permitted), the handle is valid all the same
 * and the log says why. Takes SIGINT for the whole process: a SIGINT ends the service of every stub, for good; the
 * handles still want nira_ipc_stub_stop. */
NIRA_IPC_EXPORT void* nira_ipc_stub_start(int port);

/* Pushes a text to the app registered under `app_id`. Does not block: the text is queued, and leaves in the order in
 * which texts were queued for that app. An unknown id is logged and nothing is sent. A client that leaves more than 64
 * MiB unread is disconnected. */
NIRA_IPC_EXPORT void nira_ipc_stub_send_message(void* stub, const char* app_id, const char* text);

/* The same for a bundle, which stays yours. */
NIRA_IPC_EXPORT void nira_ipc_stub_send_bundle(void* stub, const char* app_id, void* bundle);

/* Sets the callback for one type, instead of any earlier one; a null callback removes it. A type other than the three
 * is logged and ignored. */
NIRA_IPC_EXPORT void nira_ipc_stub_register_callback(void* stub, NIRA_IPC_STUB_CALLBACK_TYPE type,
                                                     nira_ipc_stub_callback callback, void* user_data);

NIRA_IPC_EXPORT void nira_ipc_stub_register_bundle_handler(void* stub, nira_ipc_stub_bundle_handler handler,
                                                           void* user_data);

/* Removes the bundle handler, whichever it is: `handler` is only logged. */
NIRA_IPC_EXPORT void nira_ipc_stub_unregister_bundle_handler(void* stub, nira_ipc_stub_bundle_handler handler);

NIRA_IPC_EXPORT void nira_ipc_stub_register_method_handler(void* stub, nira_ipc_stub_method_handler handler,
                                                           void* user_data);

/* Removes the method handler, whichever it is. Calls are then answered with an untouched result, flag false. */
NIRA_IPC_EXPORT void nira_ipc_stub_unregister_method_handler(void* stub, nira_ipc_stub_method_handler handler);

/* Disconnects every client, each with its close callback, and destroys the stub. Blocks until all its handlers and
 * callbacks have returned; none runs afterwards. Called inside one of them it waits for the others only, and the stub
 * goes when the calling one returns (on the service thread, clients are then dropped without their close callbacks). */
NIRA_IPC_EXPORT void nira_ipc_stub_stop(void* stub);

NIRA_IPC_END_C

#endif /* NIRA_IPC_STUB_H */
