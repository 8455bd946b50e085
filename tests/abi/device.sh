#!/usr/bin/env bash
# Builds against a device's own libraries, of which these two stand-ins have what the library asks for and no more.
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

stand_in() { "$CC" -shared -fPIC -x c - -o "$scratch/lib$1.so" -Wl,-soname,"lib$1.so"; }
stand_in device-log <<<'int __dlog_print(int i, int p, const char* t, const char* f, ...) { return i || p || !t || !f; }'
stand_in device-storage <<<'int ss_init_credential() { return 1; } void* ss_read() { return 0; } void ss_free_buffer() {}'
"$CMAKE" -S "$SOURCE" -B "$scratch/build" -DCMAKE_BUILD_TYPE=Debug -DNIRA_IPC_TESTS=OFF -DNIRA_IPC_EXAMPLES=OFF \
  -DNIRA_IPC_PLATFORM=device -DNIRA_IPC_DEVICE_LOG_LIBRARY="$scratch/libdevice-log.so" \
  -DNIRA_IPC_DEVICE_STORAGE_LIBRARY="$scratch/libdevice-storage.so"
"$CMAKE" --build "$scratch/build" --parallel "$(nproc)" --target nira-ipc
bash "$SOURCE/tests/abi/symbols.sh" "$scratch/build/libnira-ipc.so" 'device-log|device-storage'
