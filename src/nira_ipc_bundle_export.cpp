#include "nira_ipc_bundle.h"
#include "nira_ipc_bundle_internal.h"

namespace {

CNiraIpcBundle* Cast(void* bundle) {
  return static_cast<CNiraIpcBundle*>(bundle);
}

}  // namespace

void* nira_ipc_bundle_new(void) {
  try {
    return new CNiraIpcBundle;
  } catch (...) {
    NIRA_IPC_LOG_ERROR(NIRA_IPC_TAG, "Error while creating instance.");
    return nullptr;
  }
}

void nira_ipc_bundle_free(void* bundle) {
  delete Cast(bundle);
}

void nira_ipc_bundle_add_param_int(void* bundle, const char* key, int value) {
  if (bundle != nullptr) Cast(bundle)->SetParamInt(key, value);
}

void nira_ipc_bundle_add_param_string(void* bundle, const char* key, const char* value) {
  if (bundle != nullptr) Cast(bundle)->SetParamString(key, value);
}

void nira_ipc_bundle_add_param_int_array(void* bundle, const char* key, int* values, unsigned int count) {
  if (bundle != nullptr) Cast(bundle)->SetParamIntArray(key, values, count);
}

void nira_ipc_bundle_add_param_string_array(void* bundle, const char* key, const char** values, unsigned int count) {
  if (bundle != nullptr) Cast(bundle)->SetParamStringArray(key, values, count);
}

void nira_ipc_bundle_add_param_binary(void* bundle, const char* key, const void* data, unsigned int size) {
  if (bundle != nullptr) Cast(bundle)->SetParamBinary(key, data, size);
}

bool nira_ipc_bundle_get_param_int(void* bundle, const char* key, int* value) {
  if (bundle == nullptr || NIRA_IPC_REFUSED(value == nullptr)) return false;
  *value = Cast(bundle)->GetParamInt(key, -1);
  return true;
}

bool nira_ipc_bundle_get_param_string(void* bundle, const char* key, char** value) {
  if (bundle == nullptr || NIRA_IPC_REFUSED(value == nullptr)) return false;
  *value = Cast(bundle)->GetParamString(key, 0);
  return *value != nullptr;
}

bool nira_ipc_bundle_get_param_binary(void* bundle, const char* key, void** data, unsigned int* size) {
  if (bundle == nullptr || NIRA_IPC_REFUSED(data == nullptr)) return false;
  *data = Cast(bundle)->GetParamBinary(key, size);
  return *data != nullptr;
}

int* nira_ipc_bundle_get_param_int_array(void* bundle, const char* key, unsigned int* count) {
  return bundle != nullptr ? Cast(bundle)->GetParamIntArray(key, count) : nullptr;
}

char** nira_ipc_bundle_get_param_string_array(void* bundle, const char* key, unsigned int* count) {
  return bundle != nullptr ? Cast(bundle)->GetParamStringArray(key, count) : nullptr;
}
