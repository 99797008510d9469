#!/usr/bin/env bash
# Makes a BusyBox test system for 32- or 64-bit ARM: Debian's kernel for
# qemu's "virt" board (armmp, arm64), and an initramfs holding Debian's
# static BusyBox and the project's static tarball, installed as its INSTALL
# says: unpacked at the root, kolta-board-setup run on the image, and the
# daemon started by init from an inittab respawn line.
#
#   vm/busybox-image.sh ARCH DIR TARBALL       (ARCH: armhf or arm64)
#
# Writes DIR/vmlinuz and DIR/initramfs.gz. Debian's packages are downloaded
# into $KOLTA_VM_CACHE (default /var/cache/kolta-vm) once.
set -euo pipefail
arch=$1
dir=$2
tarball=$3
case "$arch" in
armhf) flavour=armmp ;;
arm64) flavour=arm64 ;;
*) echo "usage: $0 armhf|arm64 DIR TARBALL" >&2; exit 2 ;;
esac
cache=${KOLTA_VM_CACHE:-/var/cache/kolta-vm}/busybox-$arch
mkdir -p "$cache" "$dir"

# The architecture's packages need it known to dpkg.
known="$(dpkg --print-architecture) $(dpkg --print-foreign-architectures | tr '\n' ' ')"
case " $known " in
*" $arch "*) ;;
*)
  dpkg --add-architecture "$arch"
  apt-get -o DPkg::Lock::Timeout=600 update -qq || echo "apt-get update reported errors; going on" >&2
  ;;
esac
kernel=$(apt-cache depends "linux-image-$flavour:$arch" | sed -n "s/.*Depends: \(linux-image-[^:]*\).*/\1/p" | head -n1)
[ -n "$kernel" ] || { echo "no linux-image-$flavour:$arch in Debian's package lists" >&2; exit 77; }
for pkg in "$kernel" busybox-static; do
  if ! ls "$cache/${pkg}"_*.deb >/dev/null 2>&1; then
    echo "-- downloading $pkg:$arch"
    (cd "$cache" && apt-get download -q "$pkg:$arch" 2>&1 | grep -v '^W: Download is performed unsandboxed' || true)
    # Exit status 77 when Debian's packages cannot be had: run-vm.sh then skips.
    ls "$cache/${pkg}"_*.deb >/dev/null 2>&1 || { echo "cannot download $pkg:$arch" >&2; exit 77; }
  fi
done

work=$dir/work
root=$dir/root
rm -rf "$work" "$root"
mkdir -p "$work" "$root"
dpkg-deb -x "$(ls "$cache/${kernel}"_*.deb | tail -n1)" "$work/kernel"
dpkg-deb -x "$(ls "$cache"/busybox-static_*.deb | tail -n1)" "$work/busybox"
version=$(ls "$work/kernel/lib/modules")
cp "$work/kernel/boot/vmlinuz-$version" "$dir/vmlinuz"

echo "-- initramfs: BusyBox, the kernel's virtio modules, $(basename "$tarball")"
mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,etc/init.d,proc,sys,dev,tmp,root,var/log,var/run,lib/modules}
cp "$work/busybox/bin/busybox" "$root/bin/busybox"
ln -s busybox "$root/bin/sh"
ln -s ../bin/busybox "$root/sbin/init"
# The network card of qemu's virt board, in the order they depend on each other.
modules="drivers/virtio/virtio_mmio.ko net/core/failover.ko drivers/net/net_failover.ko drivers/net/virtio_net.ko"
for m in $modules; do
  src=$work/kernel/lib/modules/$version/kernel/$m
  [ -e "$src" ] || continue  # built into this kernel
  cp "$src" "$root/lib/modules/"
  echo "$(basename "$m")" >>"$root/etc/modules"
done

cat >"$root/etc/init.d/rcS" <<'EOF'
#!/bin/sh
# Start-up of the test system: file systems, the applets, the network of
# qemu's user mode (a fixed address: 10.0.2.15, gateway 10.0.2.2), then the
# init scripts.
/bin/busybox --install -s
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev 2>/dev/null
mount -t tmpfs tmpfs /tmp
hostname kolta-vm
while read -r m; do insmod "/lib/modules/$m"; done </etc/modules
ifconfig lo 127.0.0.1 up
ifconfig eth0 10.0.2.15 netmask 255.255.255.0 up
route add default gw 10.0.2.2
for script in /etc/init.d/S??*; do
	[ -x "$script" ] && "$script" start
done
EOF
chmod 755 "$root/etc/init.d/rcS"
cat >"$root/etc/inittab" <<'EOF'
::sysinit:/etc/init.d/rcS
::shutdown:/bin/sync
EOF

# The tarball, as INSTALL says: unpack at the root, prepare the power
# commands, start at boot from an inittab respawn line through the init
# script (which restarts the daemon after a crash).
tar -xzf "$tarball" -C "$root"
"$root/usr/sbin/kolta-board-setup" "$root" | sed 's/^/   /'
echo '::respawn:/etc/init.d/S50koltad run' >>"$root/etc/inittab"

(cd "$root" && find . | LC_ALL=C sort | cpio -o -H newc --quiet | gzip -1) >"$dir/initramfs.gz"
rm -rf "$work"
