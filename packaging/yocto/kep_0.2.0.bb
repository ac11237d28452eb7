# kep for images and SDKs of the Yocto Project, for a layer's recipes-support/kep/.
#
# Tried here, by tests/package/recipes.sh: the options, with the cross compiler of this project's board and CMake; what
# they install, by DESTDIR, and do_install's line on it; the version. Not tried: bitbake, and with it packaging, its
# checks, and the SDK. Written for the syntax of releases since 3.4 (honister).
SUMMARY = "A diagnostics runtime for long-running processes on boards"
SECTION = "libs"
# The owner has not chosen a licence yet: no text of one is looked for, and the source stays out of what is handed on.
LICENSE = "CLOSED"

# The source archive, beside this file in a folder of the name files.
SRC_URI = "file://kep-${PV}.tar.gz"
S = "${@d.getVar('UNPACKDIR') or d.getVar('WORKDIR')}/kep-${PV}"

inherit cmake

# The file of faults, for hosts that name none.
KEP_FAULT_LOG_PATH ?= "/kep.log"
EXTRA_OECMAKE = "-DKEP_BUILD_TOOLS=OFF -DKEP_BUILD_EXAMPLES=OFF -DKEP_FAULT_LOG_PATH=${KEP_FAULT_LOG_PATH}"

# This pkg-config puts the sysroot in front of every path, also of one that was found from where the file lies.
do_install:append() {
    sed -i "s,^prefix=.*,prefix=${prefix}," ${D}${libdir}/pkgconfig/*.pc
}

# The service layer is an archive, and find_package wants every file that was installed.
RDEPENDS:${PN}-dev += "${PN}-staticdev"
