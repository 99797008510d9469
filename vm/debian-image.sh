#!/usr/bin/env bash
# Makes the Debian 12 test system: a root file system from Debian's packages
# (mmdebstrap: the kernel, systemd as init, networkd for DHCP, python3 for
# Ansible's modules; no D-Bus, as on many device images), with the project's
# package installed by dpkg -i and its unit enabled as the README tells a
# user to, written to an ext4 disk image without mounting anything
# (mke2fs -d).
#
#   vm/debian-image.sh DIR DEB
#
# DIR/root is the root file system, kept between runs: it is made again only
# when this recipe changes. Each run installs DEB anew and writes DIR/disk.img;
# DIR/vmlinuz and DIR/initrd.img are the kernel and initramfs from its /boot.
# The downloaded packages and a copy of the fresh root file system (a tar
# file) are kept in $KOLTA_VM_CACHE (default /var/cache/kolta-vm), so that a
# fresh checkout on the same machine (CI's) neither downloads nor builds it
# again.
set -euo pipefail
dir=$1
deb=$2
cache=${KOLTA_VM_CACHE:-/var/cache/kolta-vm}/debian
root=$dir/root
stamp=$(sha256sum "$0" | cut -c1-16)

if [ "$(cat "$dir/root.stamp" 2>/dev/null)" != "$stamp" ] && [ -s "$cache/root-$stamp.tar" ]; then
  echo "-- Debian 12 root file system (kept in $cache/root-$stamp.tar)"
  rm -rf "$root" "$dir/root.stamp"
  mkdir -p "$root"
  tar -xf "$cache/root-$stamp.tar" -C "$root" --numeric-owner
  echo "$stamp" >"$dir/root.stamp"
fi
if [ "$(cat "$dir/root.stamp" 2>/dev/null)" != "$stamp" ]; then
  echo "-- Debian 12 root file system (mmdebstrap; packages cached in $cache)"
  rm -rf "$root" "$dir/root.stamp"
  mkdir -p "$dir" "$cache"
  # The network: DHCP on the first Ethernet link (qemu's user network).
  network='[Match]\nName=en* eth*\n\n[Network]\nDHCP=ipv4\n'
  # Exit status 77 when Debian's packages cannot be had: run-vm.sh then skips.
  trap 'echo "mmdebstrap failed" >&2; exit 77' ERR
  mmdebstrap --variant=minbase --mode=root --quiet \
    --include=linux-image-amd64,initramfs-tools,systemd-sysv,udev,python3 \
    --skip=download/empty --skip=essential/unlink \
    --setup-hook='mkdir -p "$1"/var/cache/apt/archives' \
    --setup-hook="sync-in $cache /var/cache/apt/archives/" \
    --customize-hook="sync-out /var/cache/apt/archives $cache" \
    --customize-hook='rm -f "$1"/var/cache/apt/archives/*.deb' \
    --customize-hook='echo kolta-vm > "$1"/etc/hostname' \
    --customize-hook="mkdir -p \"\$1\"/etc/systemd/network && printf '$network' > \"\$1\"/etc/systemd/network/20-wired.network" \
    --customize-hook='chroot "$1" systemctl enable systemd-networkd' \
    bookworm "$root" http://deb.debian.org/debian
  trap - ERR
  # Kept for a fresh checkout on this machine (CI), which has no build-vm/.
  rm -f "$cache"/root-*.tar
  tar -cf "$cache/root-$stamp.tar.part" -C "$root" --numeric-owner . &&
    mv "$cache/root-$stamp.tar.part" "$cache/root-$stamp.tar"
  echo "$stamp" >"$dir/root.stamp"
fi

echo "-- installing $(basename "$deb") (dpkg -i) and enabling koltad"
cp "$deb" "$root/tmp/koltad.deb"
chroot "$root" dpkg -i /tmp/koltad.deb >/dev/null
rm -f "$root/tmp/koltad.deb"
# Confined first, then enabled, as the README says: the host reaches the
# guest from qemu's user network (10.0.2.0/24).
mkdir -p "$root/etc/systemd/system/koltad.service.d"
printf '[Service]\nIPAddressDeny=any\nIPAddressAllow=localhost\nIPAddressAllow=10.0.2.0/24\n' \
  >"$root/etc/systemd/system/koltad.service.d/confine.conf"
chroot "$root" systemctl enable koltad 2>&1 | sed 's/^/   /'

echo "-- disk image (mke2fs -d)"
rm -f "$dir/disk.img"
mke2fs -q -t ext4 -L root -d "$root" "$dir/disk.img" 2G
cp "$(ls "$root"/boot/vmlinuz-* | tail -n1)" "$dir/vmlinuz"
cp "$(ls "$root"/boot/initrd.img-* | tail -n1)" "$dir/initrd.img"
