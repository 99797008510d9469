#!/usr/bin/env bash
# Boots a whole system in qemu-system and checks koltad on it from outside,
# through kolta and the Python client: it comes up at boot, reboots warm and
# cold (and a file put before the reboot reads back whole where there is a
# disk), is started again after kill -9, powers the machine off on
# "shutdown" and ends on "exit". Prints a table of checks and figures; exit
# status 0 only when every check holds.
#
#   tools/run-vm.sh debian           Debian 12, systemd, x86-64, the .deb
#   tools/run-vm.sh busybox-armhf    BusyBox in an initramfs, 32-bit ARM, the static tarball
#   tools/run-vm.sh busybox-arm64    the same on 64-bit ARM
#
# Installs what it needs from Debian; images are kept under build-vm/ and
# downloaded packages in $KOLTA_VM_CACHE (default /var/cache/kolta-vm). The
# guests run under TCG: KVM opens on these machines, but a nested guest can
# hang right after the kernel's decompression. When qemu-system or the image
# tools cannot be installed, or Debian's packages for the image cannot be
# downloaded, it prints "VM test skipped: <why>" and exits 0.
# KOLTA_VM_PORT sets the loopback port forwarded to the guest's daemon;
# KOLTA_VM_BUILD a configured build directory to take kolta and the package
# from (default: a Release build in build-vm/deb).
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh

skip() {
  echo "VM test skipped: $*"
  exit 0
}

system=${1:-}
port=${KOLTA_VM_PORT:-15500}
vm=$PWD/build-vm
mkdir -p "$vm"

# The host's kolta and the package: from $KOLTA_VM_BUILD, a configured build
# directory (run-tests.sh passes its plain build), or from a Release build
# without tests in build-vm/deb.
build_host_side() {
  ensure_packages cmake g++ make dpkg-dev python3 || { echo "cannot install the build tools" >&2; exit 1; }
  build=${KOLTA_VM_BUILD:-$vm/deb}
  echo "-- kolta and the package ($build)"
  if [ -z "${KOLTA_VM_BUILD:-}" ]; then
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKOLTA_TESTS=OFF >/dev/null
  fi
  cmake --build "$build" -j2 --target koltad kolta >/dev/null
  rm -rf "$vm/package"
  cpack --config "$build/CPackConfig.cmake" -G DEB -B "$vm/package" >/dev/null
  kolta=$build/cli/kolta
}

port_free() {
  ! (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# After an image recipe ended with STATUS: skips with WHY when it could not
# download (77), stops on another failure, else checks the port and names
# the serial log ($serial) of the boot that follows.
image_made() {
  [ "$1" -ne 77 ] || skip "$2"
  [ "$1" -eq 0 ] || exit "$1"
  port_free "$port" || { echo "port $port is in use (set KOLTA_VM_PORT)" >&2; exit 1; }
  serial=$dir/serial.log
  rm -f "$serial"
  echo "-- booting (TCG; serial console in $serial)"
}

case "$system" in
debian)
  ensure_packages qemu-system-x86 mmdebstrap e2fsprogs ||
    skip "cannot install qemu-system-x86 and mmdebstrap"
  ensure_packages ansible-core || { echo "cannot install ansible-core" >&2; exit 1; }
  command -v qemu-system-x86_64 >/dev/null || skip "qemu-system-x86 installed no qemu-system-x86_64"
  build_host_side
  dir=$vm/debian
  status=0
  vm/debian-image.sh "$dir" "$(ls "$vm"/package/koltad_*_amd64.deb)" || status=$?
  image_made "$status" "cannot download Debian's packages for the image"
  exec /usr/bin/python3 vm/checks.py --system debian --kolta "$kolta" --port "$port" \
    --serial "$serial" --disk --ansible --exit-policy stays -- \
    qemu-system-x86_64 -machine q35,accel=tcg -cpu max -smp 2 -m 1024 \
    -display none -monitor none -chardev "file,id=console,path=$serial,append=on" -serial chardev:console \
    -kernel "$dir/vmlinuz" -initrd "$dir/initrd.img" \
    -append "root=/dev/vda rw console=ttyS0 quiet" \
    -drive "file=$dir/disk.img,format=raw,if=virtio" \
    -netdev "user,id=net0,hostfwd=tcp:127.0.0.1:$port-:10000" -device virtio-net-pci,netdev=net0
  ;;
busybox-armhf | busybox-arm64)
  arch=${system#busybox-}
  if [ "$arch" = armhf ]; then
    qemu=(qemu-system-arm -M virt -cpu cortex-a15)
    console=ttyAMA0
  else
    qemu=(qemu-system-aarch64 -M virt -cpu cortex-a57)
    console=ttyAMA0
  fi
  ensure_packages qemu-system-arm cpio || skip "cannot install qemu-system-arm"
  command -v "${qemu[0]}" >/dev/null || skip "qemu-system-arm installed no ${qemu[0]}"
  build_host_side
  echo "-- static build for $arch (tools/build-static.sh)"
  tools/build-static.sh "$arch" >"$vm/build-static-$arch.log" 2>&1 ||
    { cat "$vm/build-static-$arch.log" >&2; exit 1; }
  dir=$vm/$system
  status=0
  vm/busybox-image.sh "$arch" "$dir" "$(ls dist/kolta-*-"$arch".tar.gz | tail -n1)" || status=$?
  image_made "$status" "cannot download Debian's kernel and BusyBox for $arch"
  exec /usr/bin/python3 vm/checks.py --system "$system" --kolta "$kolta" --port "$port" \
    --serial "$serial" --remote /tmp/kolta-vm-put.bin --exit-policy returns -- \
    "${qemu[@]}" -smp 2 -m 512 \
    -display none -monitor none -chardev "file,id=console,path=$serial,append=on" -serial chardev:console \
    -kernel "$dir/vmlinuz" -initrd "$dir/initramfs.gz" -append "console=$console rdinit=/sbin/init" \
    -netdev "user,id=net0,hostfwd=tcp:127.0.0.1:$port-:10000" -device virtio-net-device,netdev=net0
  ;;
*)
  echo "usage: $0 debian|busybox-armhf|busybox-arm64" >&2
  exit 2
  ;;
esac
