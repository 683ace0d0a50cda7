SUMMARY = "Drive SMART data collector"
DESCRIPTION = "Gathers the SMART data of the server's SAS/SATA solid-state \
drives, hard drives and NVMe drives and appends it to the support-data \
collection and to a daily history."
LICENSE = "CLOSED"

# The collector, its units and its build; the platform libraries (dlog, utl,
# smartdata) come from the firmware's own recipes.
DEPENDS = "sdbusplus systemd dlog utl smartdata"

SRC_URI = "git://git.example.invalid/qv-smart-collector.git;branch=main;protocol=https"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"

inherit meson pkgconfig systemd

# Every platform library and sdbusplus from the SDK: a missing one fails the
# configuration instead of building a stand-in into the image.
EXTRA_OEMESON = "-Dplatform-stand-ins=disabled -Dtests=disabled \
    -Dsystemd-units=enabled -Db_lto=true"

SYSTEMD_PACKAGES = "${PN}"
# Only the timer is enabled; it starts the service, which has no [Install].
SYSTEMD_SERVICE:${PN} = "qv-smart-collector.timer"
SYSTEMD_AUTO_ENABLE:${PN} = "enable"

FILES:${PN} += "${systemd_system_unitdir}/qv-smart-collector.* \
    ${systemd_system_unitdir}/qv-smart-metrics.service"
