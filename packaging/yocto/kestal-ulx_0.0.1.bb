# Written against the Yocto Project's "scarthgap" release. It could not be run where the library is developed: where a
# step does not fit your layers, the step is at fault.
#
# 1. Copy this file to recipes-support/kestal-ulx/ of a layer of yours.
# 2. Lay the tree as released into files/ beside it. Out of a checkout it is
#        git archive --prefix=kestal-ulx-0.0.1/ HEAD | xz >kestal-ulx-0.0.1.tar.xz
#    Or build the checkout itself: "inherit externalsrc" and EXTERNALSRC.
# 3. IMAGE_INSTALL:append = " kestal-ulx" (the programs: kestal-ulx-tools); bitbake the image.
SUMMARY = "Platform library for Linux devices"
DESCRIPTION = "Sockets, an event loop, protocols, streams, JSON, frame-buffer graphics, ciphers and digests, threads and \
containers behind one C interface that needs only the C library."
SECTION = "libs"
LICENSE = "CLOSED"

SRC_URI = "file://kestal-ulx-${PV}.tar.xz"
S = "${WORKDIR}/kestal-ulx-${PV}"

inherit cmake pkgconfig

PACKAGECONFIG ??= "pictures protocols ciphers"
PACKAGECONFIG[pictures] = "-DKESTAL_PICTURES=ON,-DKESTAL_PICTURES=OFF"
PACKAGECONFIG[protocols] = "-DKESTAL_PROTOCOLS=ON,-DKESTAL_PROTOCOLS=OFF"
PACKAGECONFIG[ciphers] = "-DKESTAL_CIPHERS=ON,-DKESTAL_CIPHERS=OFF"

EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=Release -DKESTAL_BUILD_TESTS=OFF -DKESTAL_BUILD_EXAMPLES=ON -DCMAKE_SKIP_INSTALL_RPATH=ON"

# The programs, the archive and the development files go into packages of their own; -dev and -staticdev are the usual ones.
PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = "${bindir}/kestal-*"
FILES:${PN}-dev += "${libdir}/cmake"
