SUMMARY = "Firmware update control library for a television's add-on components"
DESCRIPTION = "Finds the update modules of a set, decides which need an update, checks their \
firmware images and runs the updates, one at a time across all processes of the set."
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=86d3f3a95c324c9479bd8986968f4327"

# Where the release's tarball lies; the release script writes its sum into its own copy of
# this recipe.
FW_UPDATE_MIRROR ?= "file://${TOPDIR}/downloads"
SRC_URI = "${FW_UPDATE_MIRROR}/fw-update-control-${PV}.tar.gz"
SRC_URI[sha256sum] = "@SHA256@"

DEPENDS = "boost jsoncpp openssl"

inherit cmake pkgconfig systemd

# platform: the library for ordinary Linux. A set that brings its own leaves it out, and its
# recipe has RPROVIDES:${PN} = "virtual-fw-update-platform".
PACKAGECONFIG ??= "platform"
PACKAGECONFIG[platform] = "-DFW_UPDATE_PLATFORM=linux,-DFW_UPDATE_PLATFORM=none,curl systemd cli11"

EXTRA_OECMAKE = "-DFW_UPDATE_TOOLS=OFF -DCMAKE_INSTALL_LIBDIR=${baselib} -DCMAKE_BUILD_TYPE=Release"

PACKAGES =+ "libfw-platform ${PN}-verifier"
# systemd starts the service with the first request.
SYSTEMD_PACKAGES = "${@bb.utils.contains('PACKAGECONFIG', 'platform', 'libfw-platform', '', d)}"
SYSTEMD_SERVICE:libfw-platform = "fw-privileged.socket"
RDEPENDS:${PN} += "virtual-fw-update-platform"
RRECOMMENDS:${PN} += "${PN}-verifier"
RPROVIDES:libfw-platform = "virtual-fw-update-platform"

FILES:${PN} = "${libdir}/libfw-update-control.so.* ${nonarch_libdir}/tmpfiles.d"
FILES:${PN}-verifier = "${nonarch_libdir}/libkZAQUser.so"
FILES:libfw-platform = "${libdir}/libfw-platform.so.* ${libexecdir}/fw-update ${sbindir}/fw-privileged \
  ${systemd_system_unitdir} ${nonarch_libdir}/systemd ${nonarch_libdir}/sysusers.d"
INSANE_SKIP:${PN}-verifier = "dev-so"

# The library asks the platform, and only finds it at run time where it is another recipe's.
PRIVATE_LIBS:${PN} = "libfw-platform.so.1"
