# Makes a signed extension package of a firmware image:
#
#   inherit fw-update-package
#   FW_UPDATE_IMAGE = "${WORKDIR}/tuner.bin"
#   FW_UPDATE_ID = "tunerempfw"
#   FW_UPDATE_VERSION = "${PV}"
#   FW_UPDATE_EXPECTED_TIME = "30"
#   FW_UPDATE_SIGNING_KEY = "/secret/maker.key"
#
# do_deploy leaves ${FW_UPDATE_ID}.img. fw-pack is the build machine's: install the package
# fw-update-tools there. The key is read where it lies, and is copied nowhere.
FW_UPDATE_VERSION ?= "${PV}"
FW_UPDATE_EXPECTED_TIME ?= "30"
DEPENDS += "squashfs-tools-native"

inherit deploy

python () {
    for name in ("FW_UPDATE_IMAGE", "FW_UPDATE_ID", "FW_UPDATE_SIGNING_KEY"):
        if not d.getVar(name):
            bb.fatal("%s is not set; fw-update-package.bbclass says what it is" % name)
}

# Another key or image makes another package; the key itself gets into no sum.
do_fw_update_package[file-checksums] = "${FW_UPDATE_IMAGE}:True"
do_fw_update_package[vardeps] += "FW_UPDATE_ID FW_UPDATE_VERSION FW_UPDATE_EXPECTED_TIME"
do_fw_update_package() {
    fw-pack emp "${FW_UPDATE_IMAGE}" --id "${FW_UPDATE_ID}" --version "${FW_UPDATE_VERSION}" \
        --expected-time "${FW_UPDATE_EXPECTED_TIME}" --signing-key "${FW_UPDATE_SIGNING_KEY}" \
        --output "${B}/${FW_UPDATE_ID}.img"
}
addtask fw_update_package after do_compile before do_install

do_deploy() {
    install -m 0644 "${B}/${FW_UPDATE_ID}.img" "${DEPLOYDIR}/"
}
addtask deploy after do_fw_update_package before do_build
