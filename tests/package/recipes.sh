#!/usr/bin/env bash
# recipes.sh SOURCE CMAKE_OPTION...: the recipes of packaging/ are of this version, and the options that they pass build
# and install what they are to, for the target that the options here are of.
set -euo pipefail
source=$1
shift
work=$PWD/recipes
rm -rf "$work"
mkdir "$work"
cd "$work"
failed=0
fail() { echo "recipes.sh: $*" >&2; failed=1; }
version=$(sed -n 's/^#define KEP_VERSION "\(.*\)"$/\1/p' "$source/include/kep/kep.h")

# buildroot STATIC: its options, as a stand-in for the infrastructure is given them.
buildroot() {
  make -s -f - BR2_STATIC_LIBS="$1" BR2_PACKAGE_KEP_FAULT_LOG_PATH='"/var/kep.faults"' <<MAKEFILE
qstrip = \$(strip \$(subst ",,\$(1)))
define cmake-package
all: ; @echo \$(KEP_CONF_OPTS) -DBUILD_SHARED_LIBS=\$(if \$(BR2_STATIC_LIBS),OFF,ON)
endef
include $source/packaging/buildroot/kep.mk
ifneq (\$(KEP_VERSION),$version)
\$(error of version \$(KEP_VERSION))
endif
MAKEFILE
}

# yocto: its options, with what they name filled in.
yocto() {
  sed -n 's/^EXTRA_OECMAKE = "\(.*\)"$/\1/p' "$source/packaging/yocto/kep_$version.bb" |
    sed 's,[$]{KEP_FAULT_LOG_PATH},/var/kep.faults,'
}

# stage NAME OPTION...: built with the options, and installed below NAME/stage.
stage() {
  local name=$1
  shift
  { cmake -S "$source" -B "$name" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_UNITY_BUILD=ON \
    --no-warn-unused-cli "${options[@]}" "$@" && DESTDIR=$PWD/$name/stage cmake --build "$name" --target install; } \
    >"$name.log" 2>&1 || { cat "$name.log" >&2; fail "$name: is not built"; }
  grep -q 'KEP_FAULT_LOG_PATH=\\"/var/kep.faults\\"' "$name/build.ninja" || fail "$name: the fault file is another"
  (cd "$name/stage/usr" && find . -type d -name bin && find lib -maxdepth 2 -type f -o -type l | sort) >"$name.files"
}

options=(-DCMAKE_INSTALL_LIBDIR=lib "$@")
# shellcheck disable=SC2046 # options are words
{
  stage buildroot-static $(buildroot y)
  stage buildroot-shared $(buildroot '')
  stage yocto $(yocto)
}
archives=(lib/libkep.a lib/libkep_platform_posix.a lib/pkgconfig/kep-platform-posix.pc lib/pkgconfig/kep.pc)
shared=(lib/libkep.so "lib/libkep.so.${version%.*}" "lib/libkep.so.$version")
printf '%s\n' "${archives[@]}" >static.expected
printf '%s\n' "${archives[@]}" "${shared[@]}" | sort >shared.expected
diff static.expected buildroot-static.files || fail "buildroot-static: does not install what it is to"
diff shared.expected buildroot-shared.files || fail "buildroot-shared: does not install what it is to"
diff shared.expected yocto.files || fail "yocto: does not install what it is to"

# The line that Yocto's do_install adds, on what was installed.
D=$PWD/yocto/stage libdir=/usr/lib prefix=/usr bash -eu <<<"$(sed -n '/^do_install:append/,/^}/{ /^ /p }' \
  "$source/packaging/yocto/kep_$version.bb")"
for file in yocto/stage/usr/lib/pkgconfig/*.pc; do
  grep -qx 'prefix=/usr' "$file" || fail "$file has another prefix"
done
exit $failed
