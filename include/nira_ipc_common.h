/*
 * What the five families of libnira-ipc share: conventions, the export mark, C's bool.
 *
 * The conventions hold for every function; below, the headers say only what departs from them.
 *
 *  1. Handles. An object is an opaque `void*`, made by its family's `_new` (or nira_ipc_stub_start) and destroyed by
 *     its family's `_free` (or nira_ipc_stub_stop). Pass a handle only to functions of its own family, or where a
 *     parameter's name says so; a handle is invalid once it was freed.
 *  2. Null. A null handle is ignored: the function changes nothing and gives 0, false or null. So is a null key, text
 *     or data pointer, after one error line in the log. Parameters that may be null say so.
 *  3. Ownership. You own the handles you made. Whatever a getter returns belongs to the object it came from and is
 *     valid until that object is freed; never free it. Arguments are copied before the function returns.
 *  4. Handles and texts that the library passes to a callback belong to the library and live until the callback
 *     returns; copy what is needed later, free nothing.
 *  5. Failure is a result (0, false, -1, null) together with one line in the system log, tag NIRA_IPC_PROXY,
 *     NIRA_IPC_STUB or NIRA_IPC. nira_ipc_proxy_new, nira_ipc_proxy_connect, nira_ipc_stub_start, nira_ipc_func_new
 *     and nira_ipc_bundle_new never throw; the others let std::bad_alloc pass, and nothing else.
 *  6. Threads. Proxies and stubs may be used from any number of threads at once; free and stop end a handle, so no
 *     other thread may use it from then on. Bundles, calls and results have no lock: one thread at a time each.
 *  7. Callbacks run on the library's own worker threads (ten for all proxies of the process, ten for all stubs), with
 *     no lock held, several at once and in any order; a callback may call any function of this library. Exceptions
 *     that leave a callback are caught and logged. Those threads block every signal but the synchronous ones.
 *  8. Texts are NUL-terminated UTF-8.
 */
#ifndef NIRA_IPC_COMMON_H
#define NIRA_IPC_COMMON_H

#include <stdbool.h>

#define NIRA_IPC_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define NIRA_IPC_BEGIN_C extern "C" {
#define NIRA_IPC_END_C }
#else
#define NIRA_IPC_BEGIN_C
#define NIRA_IPC_END_C
#endif

#endif /* NIRA_IPC_COMMON_H */
