# Written against the Yocto Project's "scarthgap" release. It could not be run where the library is developed: where a
# step does not fit your layers, the step is at fault.
SUMMARY = "Platform library for Linux devices"
DESCRIPTION = "Sockets, an event loop, protocols, streams, JSON, frame-buffer graphics, ciphers and digests, threads and \
containers behind one C interface that needs only the C library."
SECTION = "libs"
LICENSE = "CLOSED"

# The tree as released; a checkout serves as well: EXTERNALSRC with "inherit externalsrc".
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
