#!/usr/bin/env bash
# Installs the build, moves it, and builds and runs a project that knows nothing of this tree, in C through pkg-config
# and in C++ through find_package:  consumer.sh CMAKE GENERATOR BUILD
set -euo pipefail
cmake=$1 generator=$2 build=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$cmake" --install "$build" --prefix "$scratch/first"
mv "$scratch/first" "$scratch/moved"
pc=$(find "$scratch/moved" -name nira-ipc.pc)
export PKG_CONFIG_PATH=${pc%/*} NIRA_IPC_SECURE_STORAGE=$scratch
"$cmake" -G "$generator" -S "$(dirname "${BASH_SOURCE[0]}")/consumer" -B "$scratch/build" \
  -DCMAKE_PREFIX_PATH="$scratch/moved"
"$cmake" --build "$scratch/build"

printf 'secret of this test' >"$scratch/nira_ipc_key"
chmod 600 "$scratch/nira_ipc_key"
for language in c cpp; do
  port=$(/usr/bin/python3 -c 'import socket; s = socket.create_server(("127.0.0.1", 0)); print(s.getsockname()[1])')
  timeout 30 "$scratch/build/consumer_$language" "$port"
done
