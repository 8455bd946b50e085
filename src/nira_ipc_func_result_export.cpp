#include "nira_ipc_func_result.h"
#include "nira_ipc_func_result_internal.h"

namespace {

CNiraIpcFuncResult* Cast(void* result) {
  return static_cast<CNiraIpcFuncResult*>(result);
}

}  // namespace

void* nira_ipc_func_result_new(void) {
  return new CNiraIpcFuncResult;
}

void nira_ipc_func_result_free(void* result) {
  delete Cast(result);
}

void nira_ipc_func_result_set_result(void* result, int flag) {
  if (result != nullptr) Cast(result)->SetResult(flag != 0);
}

bool nira_ipc_func_result_get_result(void* result) {
  return result != nullptr && Cast(result)->GetResult();
}

void nira_ipc_func_result_add_param_int(void* result, const char* key, int value) {
  if (result != nullptr) Cast(result)->SetParamInt(key, value);
}

void nira_ipc_func_result_add_param_string(void* result, const char* key, const char* value) {
  if (result != nullptr) Cast(result)->SetParamString(key, value);
}

void nira_ipc_func_result_add_param_int_array(void* result, const char* key, int* values, unsigned int count) {
  if (result != nullptr) Cast(result)->SetParamIntArray(key, values, count);
}

void nira_ipc_func_result_add_param_string_array(void* result, const char* key, const char** values,
                                                 unsigned int count) {
  if (result != nullptr) Cast(result)->SetParamStringArray(key, values, count);
}

// True for every result, and for none: callers have come to read the value only.
bool nira_ipc_func_result_get_param_int(void* result, const char* key, int* value) {
  if (NIRA_IPC_REFUSED(value == nullptr)) return true;
  *value = result != nullptr ? Cast(result)->GetParamInt(key, -1) : -1;
  return true;
}

bool nira_ipc_func_result_get_param_string(void* result, const char* key, char** value) {
  if (result == nullptr || NIRA_IPC_REFUSED(value == nullptr)) return false;
  *value = Cast(result)->GetParamString(key, 0);
  return *value != nullptr;
}

int* nira_ipc_func_result_get_param_int_array(void* result, const char* key, unsigned int* count) {
  return result != nullptr ? Cast(result)->GetParamIntArray(key, count) : nullptr;
}

char** nira_ipc_func_result_get_param_string_array(void* result, const char* key, unsigned int* count) {
  return result != nullptr ? Cast(result)->GetParamStringArray(key, count) : nullptr;
}

Json::Value nira_ipc_func_result_get_json(void* result) {
  return result != nullptr ? Cast(result)->GetJson() : Json::Value();
}
