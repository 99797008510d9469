#!/usr/bin/env bash
# Builds koltad and runs it in the foreground on the port of
# /etc/kolta/kolta.conf, installing the default configuration (port 10000)
# when there is none. Extra arguments go to the daemon.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
ensure_packages cmake g++ make

cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DKOLTA_TESTS=OFF >/dev/null
cmake --build build-release -j"$(nproc)" --target koltad kolta
if [ ! -f /etc/kolta/kolta.conf ]; then
  install -D -m 0644 packaging/kolta.conf /etc/kolta/kolta.conf
fi
exec ./build-release/server/koltad "$@"
