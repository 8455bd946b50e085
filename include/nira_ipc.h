/* All of libnira-ipc. The conventions that every function follows are in nira_ipc_common.h. */
#ifndef NIRA_IPC_H
#define NIRA_IPC_H

#include "nira_ipc_bundle.h"
#include "nira_ipc_func.h"
#include "nira_ipc_func_result.h"
#include "nira_ipc_proxy.h"
#include "nira_ipc_stub.h"

#endif /* NIRA_IPC_H */
