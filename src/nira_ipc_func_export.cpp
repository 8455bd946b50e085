#include <memory>

#include "nira_ipc_func.h"
#include "nira_ipc_func_internal.h"

namespace {

CNiraIpcFunc* Cast(void* func) {
  return static_cast<CNiraIpcFunc*>(func);
}

}  // namespace

void* nira_ipc_func_new(const char* name) {
  try {
    auto func = std::make_unique<CNiraIpcFunc>();
    func->SetMethodName(name);
    return func.release();
  } catch (...) {
    NIRA_IPC_LOG_ERROR(NIRA_IPC_TAG, "Error while creating instance.");
    return nullptr;
  }
}

void nira_ipc_func_free(void* func) {
  delete Cast(func);
}

void nira_ipc_func_add_param_int(void* func, const char* key, int value) {
  if (func != nullptr) Cast(func)->SetParamInt(key, value);
}

void nira_ipc_func_add_param_string(void* func, const char* key, const char* value) {
  if (func != nullptr) Cast(func)->SetParamString(key, value);
}

void nira_ipc_func_add_param_int_array(void* func, const char* key, int* values, unsigned int count) {
  if (func != nullptr) Cast(func)->SetParamIntArray(key, values, count);
}

void nira_ipc_func_add_param_string_array(void* func, const char* key, const char** values, unsigned int count) {
  if (func != nullptr) Cast(func)->SetParamStringArray(key, values, count);
}

bool nira_ipc_func_get_func_name(void* func, char** name) {
  if (func == nullptr || NIRA_IPC_REFUSED(name == nullptr)) return false;
  *name = const_cast<char*>(Cast(func)->GetMethodName());
  return *name != nullptr;
}

// A stored -1 is no success here, unlike in a bundle.
bool nira_ipc_func_get_param_int(void* func, const char* key, int* value) {
  if (func == nullptr || NIRA_IPC_REFUSED(value == nullptr)) return false;
  *value = Cast(func)->GetParamInt(key, -1);
  return *value != -1;
}

bool nira_ipc_func_get_param_string(void* func, const char* key, char** value) {
  if (func == nullptr || NIRA_IPC_REFUSED(value == nullptr)) return false;
  *value = Cast(func)->GetParamString(key, 0);
  return *value != nullptr;
}

int* nira_ipc_func_get_param_int_array(void* func, const char* key, unsigned int* count) {
  return func != nullptr ? Cast(func)->GetParamIntArray(key, count) : nullptr;
}

char** nira_ipc_func_get_param_string_array(void* func, const char* key, unsigned int* count) {
  return func != nullptr ? Cast(func)->GetParamStringArray(key, count) : nullptr;
}
