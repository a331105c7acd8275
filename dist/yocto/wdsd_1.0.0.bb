# SPDX-License-Identifier: ISC
# To fill in for a release: SRC_URI (where the tarball lies) and its
# SRC_URI[sha256sum].
SUMMARY = "Cellular packet-data call daemon for embedded Linux gateways"
DESCRIPTION = "wdsd brings up, supervises and tears down a cellular packet-data \
call through a USB modem, in QMI mode (binary WDS messages) or NDIS mode (AT \
commands), driven by the files under /var/wan/<ifname>/. It runs under the init \
system through wdsd-supervise."
SECTION = "net"
LICENSE = "ISC"
LIC_FILES_CHKSUM = "file://LICENSE;md5=8c7247bd8b47f5f73f88ac624f0d6650"

SRC_URI = "@FILL-IN-SOURCE-URL@/wdsd-${PV}.tar.gz"
SRC_URI[sha256sum] = "@FILL-IN-SHA256@"

inherit cmake update-rc.d systemd

# The daemon and its supervisor only. A gateway with its own platform library
# links it in place of the stand-ins: -DWDS_PLATFORM_LIBRARY=<library>, and
# DEPENDS on its recipe.
EXTRA_OECMAKE = "-DWDS_BUILD_TESTS=OFF -DWDS_BUILD_SIM=OFF -DWDS_BUILD_BENCH=OFF"

do_install:append() {
    install -D -m 0755 ${S}/dist/sysv/wdsd ${D}${sysconfdir}/init.d/wdsd
    install -D -m 0644 ${S}/dist/systemd/wdsd.service ${D}${systemd_system_unitdir}/wdsd.service
    install -D -m 0644 ${S}/dist/systemd/99-wdsd-modem.rules ${D}${nonarch_base_libdir}/udev/rules.d/99-wdsd-modem.rules
    install -D -m 0755 ${S}/dist/hotplug/wdsd-modem-added ${D}${libexecdir}/wdsd/wdsd-modem-added
}

INITSCRIPT_NAME = "wdsd"
INITSCRIPT_PARAMS = "defaults 90 10"
SYSTEMD_SERVICE:${PN} = "wdsd.service"

FILES:${PN} += "${nonarch_base_libdir}/udev/rules.d ${libexecdir}/wdsd"
