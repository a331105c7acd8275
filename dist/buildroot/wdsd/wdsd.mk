################################################################################
#
# wdsd
#
################################################################################
# SPDX-License-Identifier: ISC
#
# To fill in for a release: WDSD_SITE (where the tarball lies) and its hash
# in wdsd.hash.

WDSD_VERSION = 1.0.0
WDSD_SITE = @FILL-IN-SITE@
WDSD_SOURCE = wdsd-$(WDSD_VERSION).tar.gz
WDSD_LICENSE = ISC
WDSD_LICENSE_FILES = LICENSE

# The daemon and its supervisor only: the build needs nothing but the
# toolchain. A gateway with its own platform library links it in place of
# the stand-ins: -DWDS_PLATFORM_LIBRARY=<library>, and the package that
# provides it in WDSD_DEPENDENCIES.
WDSD_CONF_OPTS = \
	-DWDS_BUILD_TESTS=OFF \
	-DWDS_BUILD_SIM=OFF \
	-DWDS_BUILD_BENCH=OFF

define WDSD_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/dist/sysv/wdsd $(TARGET_DIR)/etc/init.d/S50wdsd
endef

define WDSD_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/dist/systemd/wdsd.service \
		$(TARGET_DIR)/usr/lib/systemd/system/wdsd.service
endef

# The modem's return: signal 38 from udev (mdev: see docs/INTEGRATING.md).
ifeq ($(BR2_PACKAGE_HAS_UDEV),y)
define WDSD_INSTALL_MODEM_RULE
	$(INSTALL) -D -m 0644 $(@D)/dist/systemd/99-wdsd-modem.rules \
		$(TARGET_DIR)/lib/udev/rules.d/99-wdsd-modem.rules
	$(INSTALL) -D -m 0755 $(@D)/dist/hotplug/wdsd-modem-added \
		$(TARGET_DIR)/usr/libexec/wdsd/wdsd-modem-added
endef
WDSD_POST_INSTALL_TARGET_HOOKS += WDSD_INSTALL_MODEM_RULE
endif

$(eval $(cmake-package))
