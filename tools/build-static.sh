#!/usr/bin/env bash
# Builds koltad and kolta fully statically against musl, optimised for size
# and stripped, for boards without a package manager:
#
#   tools/build-static.sh [x86_64] [armhf] [arm64]      (default: all three)
#
# Each architecture gives dist/<arch>/koltad, dist/<arch>/kolta and
# dist/kolta-<version>-<arch>.tar.gz, which unpacks at a board's root
# (usr/share/doc/kolta/INSTALL in it says how to go on). The compilers are
# Debian's GCC (the native one, g++-arm-linux-gnueabihf and
# g++-aarch64-linux-gnu) with Debian's musl-dev of each architecture; the
# script installs them when they are missing (the ARM musl-dev packages need
# the architecture added to dpkg, which it does).
#
# It fails when a program is not statically linked or is larger than its
# limit (in bytes): koltad 150000 (x86_64, arm64) and 120000 (armhf), kolta
# 200000 on armhf.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh

archs=("$@")
[ ${#archs[@]} -gt 0 ] || archs=(x86_64 armhf arm64)

# arch -> GCC triple, Debian architecture, koltad limit, kolta limit (0: none).
arch_facts() {
  case "$1" in
    x86_64) echo "x86_64-linux-gnu amd64 150000 0" ;;
    armhf) echo "arm-linux-gnueabihf armhf 120000 200000" ;;
    arm64) echo "aarch64-linux-gnu arm64 150000 0" ;;
    *) return 1 ;;
  esac
}

packages=(cmake make file g++)
for arch in "${archs[@]}"; do
  if ! facts=$(arch_facts "$arch"); then
    echo "usage: tools/build-static.sh [x86_64] [armhf] [arm64]" >&2
    exit 2
  fi
  read -r triple debarch _ _ <<<"$facts"
  if [ "$debarch" != "$(dpkg --print-architecture)" ]; then
    dpkg --print-foreign-architectures | grep -qx "$debarch" || dpkg --add-architecture "$debarch"
    packages+=("g++-$triple" "musl-dev:$debarch")
  else
    packages+=(musl-dev)
  fi
done
ensure_packages "${packages[@]}"

version=$(sed -n 's/^project(kolta VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
mtime=$(git log -1 --format=%ct 2>/dev/null || date +%s)
mkdir -p dist
summary=()
for arch in "${archs[@]}"; do
  read -r triple debarch koltad_limit kolta_limit <<<"$(arch_facts "$arch")"
  build=build-static-$arch
  echo "== static $arch build (musl, $triple-g++)"
  cmake -S . -B "$build" --no-warn-unused-cli -DCMAKE_TOOLCHAIN_FILE="packaging/toolchain-musl-$arch.cmake" \
    -DCMAKE_BUILD_TYPE=Device -DKOLTA_TESTS=OFF >/dev/null
  cmake --build "$build" -j"$(nproc)" --target koltad kolta system_texts_dump

  out=dist/$arch
  mkdir -p "$out"
  "$triple-strip" --strip-all -R .comment -o "$out/koltad" "$build/server/koltad"
  "$triple-strip" --strip-all -R .comment -o "$out/kolta" "$build/cli/kolta"
  for program in koltad kolta; do
    if ! file -b "$out/$program" | grep -q 'statically linked'; then
      echo "FAILED: $out/$program is not statically linked: $(file -b "$out/$program")" >&2
      exit 1
    fi
  done
  koltad_size=$(stat -c %s "$out/koltad")
  kolta_size=$(stat -c %s "$out/kolta")
  if [ "$koltad_size" -gt "$koltad_limit" ]; then
    echo "FAILED: $out/koltad has $koltad_size bytes, more than $koltad_limit" >&2
    exit 1
  fi
  if [ "$kolta_limit" -gt 0 ] && [ "$kolta_size" -gt "$kolta_limit" ]; then
    echo "FAILED: $out/kolta has $kolta_size bytes, more than $kolta_limit" >&2
    exit 1
  fi

  # The archive, laid out as on the board.
  stage=$build/stage
  rm -rf "$stage"
  install -D -m 755 "$out/koltad" "$stage/usr/sbin/koltad"
  install -D -m 755 "$out/kolta" "$stage/usr/bin/kolta"
  install -D -m 644 packaging/kolta.conf "$stage/etc/kolta/kolta.conf"
  install -D -m 755 packaging/board/S50koltad "$stage/etc/init.d/S50koltad"
  install -D -m 755 packaging/board/kolta-board-setup "$stage/usr/sbin/kolta-board-setup"
  install -D -m 755 packaging/board/shutdown "$stage/usr/share/kolta/board/shutdown"
  install -D -m 644 packaging/board/init "$stage/usr/share/kolta/board/init"
  install -d "$stage/usr/lib/systemd/system" "$stage/usr/share/doc/kolta"
  sed 's|@SBINDIR@|/usr/sbin|' packaging/koltad.service >"$stage/usr/lib/systemd/system/koltad.service"
  sed "s|@VERSION@|$version|g" packaging/board/INSTALL >"$stage/usr/share/doc/kolta/INSTALL"
  tarball=dist/kolta-$version-$arch.tar.gz
  tar --sort=name --owner=0 --group=0 --numeric-owner --mtime="@$mtime" \
    -C "$stage" -czf "$tarball" etc usr
  summary+=("$(printf '%-7s koltad %6d bytes   kolta %6d bytes   %s' "$arch" "$koltad_size" "$kolta_size" "$tarball")")
done

echo "== static builds"
printf '%s\n' "${summary[@]}"
