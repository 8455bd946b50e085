#!/usr/bin/env bash
# Installs the build, moves it, and builds and runs a program that knows nothing of this tree, in C through pkg-config
# and in C++ through find_package.
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
"$CMAKE" --install "$BUILD" --prefix "$scratch/first"
mv "$scratch/first" "$scratch/moved"
lib=$(dirname "$(find "$scratch/moved" -name libnira-ipc.so)")
export PKG_CONFIG_PATH=$lib/pkgconfig NIRA_IPC_SECURE_STORAGE=$scratch

cd "$SOURCE/tests/abi/consumer"
"$CC" consumer.c $(pkg-config --cflags --libs 'nira-ipc >= 1.0.2') -Wl,-rpath,"$lib" -o "$scratch/consumer_c"
"$CMAKE" -S . -B "$scratch" -DCMAKE_PREFIX_PATH="$scratch/moved"
"$CMAKE" --build "$scratch"
for language in c cpp; do
  port=$(/usr/bin/python3 -c 'import socket; s = socket.create_server(("127.0.0.1", 0)); print(s.getsockname()[1])')
  timeout 30 "$scratch/consumer_$language" "$port"
done
