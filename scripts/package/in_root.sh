#!/usr/bin/env bash
# in_root.sh ROOT FOLDER: what scripts/package.sh has mmdebstrap do in its fresh root, where all that the packages need
# is installed: installs the packages of FOLDER, tries them, removes them again, and compares what is there with what
# was.
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: in_root.sh ROOT FOLDER" >&2; exit 2; }
root=$1 folder=$2
say() { printf '\n== in the fresh root: %s\n' "$*"; }

# Every file's kind, rights and owner, and all users; but for what all packages leave: logs, caches, dpkg's records.
look() {
  find "$root" -mindepth 1 -xdev -regextype posix-extended \
    -regex "$root/(proc|sys|dev|tmp|run|var/(cache|log|lib/(apt|dpkg)))" -prune -o -printf '%y %m %u %g /%P %l\n' | sort
  cat "$root"/etc/{passwd,group,shadow,gshadow}
}

# alone COMMAND...: in the root, with a network of its own, where no port is taken, and nothing of the builder's habits.
alone() {
  unshare -n sh -c 'ip link set lo up; exec "$@"' - chroot "$root" env -i HOME=/root PATH=/usr/sbin:/usr/bin "$@"
}

look >"$folder/before"
mkdir "$root/tmp/packages"
cp -r "$folder"/*.deb "$folder/tests" "$root/tmp/packages"

say "installing"
chroot "$root" sh -c 'dpkg --install /tmp/packages/*.deb' >"$folder/install.log" 2>&1 ||
  { cat "$folder/install.log" >&2; exit 1; }
say "the unit"
complaints=$(chroot "$root" systemd-analyze --man=no verify kep-fleet.service 2>&1) && [ -z "$complaints" ] ||
  { echo "$complaints" >&2; exit 1; }
for name in hosts fleet; do
  say "$name"
  alone "/tmp/packages/tests/$name"
done
say "purging, with the unit enabled"
chroot "$root" systemctl enable --quiet kep-fleet
look >"$folder/installed"
chroot "$root" sh -c 'dpkg --purge $(dpkg-query -W -f "\${Package} \${Source}\n" | sed -n "s/ kep\$//p")' \
  >"$folder/purge.log" 2>&1 || { cat "$folder/purge.log" >&2; exit 1; }
look >"$folder/after"
diff "$folder/before" "$folder/after"
echo "nothing is left of $(diff "$folder/before" "$folder/installed" | grep -c '^>') files and users"
