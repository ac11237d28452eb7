################################################################################
#
# kep
#
# Tried here, by tests/package/recipes.sh: this file under make, with a stand-in
# for cmake-package; its options, shared and static, with the cross compiler of
# this project's board and CMake; what they install, by DESTDIR; the version.
# Not tried: Buildroot itself, Config.in, and other C libraries than glibc.
#
################################################################################

KEP_VERSION = 0.2.0
KEP_SOURCE = kep-$(KEP_VERSION).tar.gz
# The source archive lies beside this file.
KEP_SITE = $(KEP_PKGDIR)
KEP_SITE_METHOD = file
# The owner has not chosen one, so the source is not handed on either.
KEP_LICENSE = not chosen yet
KEP_REDISTRIBUTE = NO
KEP_INSTALL_STAGING = YES

KEP_CONF_OPTS = \
	-DKEP_BUILD_TOOLS=OFF \
	-DKEP_BUILD_EXAMPLES=OFF \
	-DKEP_FAULT_LOG_PATH=$(call qstrip,$(BR2_PACKAGE_KEP_FAULT_LOG_PATH))

# Hosts that link the archive leave nothing to be found on the target.
ifeq ($(BR2_STATIC_LIBS),y)
KEP_CONF_OPTS += -DKEP_BUILD_SHARED=OFF
KEP_INSTALL_TARGET = NO
endif

$(eval $(cmake-package))
