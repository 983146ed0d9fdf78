################################################################################
#
# kestal-ulx
#
# Written against Buildroot 2024.02. It could not be run where the library is
# developed: where a step does not fit your tree, the step is at fault.
#
# 1. Copy this folder to package/, and in package/Config.in write
#        source "package/kestal-ulx/Config.in"
# 2. Lay the tree as released into dl/kestal-ulx/. Out of a checkout it is
#        git archive --prefix=kestal-ulx-0.0.1/ HEAD | xz >kestal-ulx-0.0.1.tar.xz
#    Or build the checkout itself: KESTAL_ULX_OVERRIDE_SRCDIR in local.mk.
# 3. make menuconfig, and choose kestal-ulx; make.
#
# CMake 3.25 or newer is needed: where the host's is older, choose
# BR2_FORCE_HOST_BUILD, and Buildroot makes its own.
#
################################################################################

KESTAL_ULX_VERSION = 0.0.1
KESTAL_ULX_SOURCE = kestal-ulx-$(KESTAL_ULX_VERSION).tar.xz
KESTAL_ULX_SITE = $(BR2_DL_DIR)/kestal-ulx
KESTAL_ULX_SITE_METHOD = file
KESTAL_ULX_LICENSE = PROPRIETARY
KESTAL_ULX_REDISTRIBUTE = NO
KESTAL_ULX_INSTALL_STAGING = YES
KESTAL_ULX_SUPPORTS_IN_SOURCE_BUILD = NO

KESTAL_ULX_CONF_OPTS = \
	-DKESTAL_BUILD_TESTS=OFF \
	-DKESTAL_BUILD_EXAMPLES=$(if $(BR2_PACKAGE_KESTAL_ULX_TOOLS),ON,OFF) \
	-DKESTAL_PICTURES=$(if $(BR2_PACKAGE_KESTAL_ULX_PICTURES),ON,OFF) \
	-DKESTAL_PROTOCOLS=$(if $(BR2_PACKAGE_KESTAL_ULX_PROTOCOLS),ON,OFF) \
	-DKESTAL_CIPHERS=$(if $(BR2_PACKAGE_KESTAL_ULX_CIPHERS),ON,OFF) \
	-DCMAKE_SKIP_INSTALL_RPATH=ON

$(eval $(cmake-package))
