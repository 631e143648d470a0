################################################################################
#
# fw-update-control
#
################################################################################

FW_UPDATE_CONTROL_VERSION = 1.0.0
FW_UPDATE_CONTROL_SITE ?= file://$(TOPDIR)/dl
FW_UPDATE_CONTROL_SOURCE = fw-update-control-$(FW_UPDATE_CONTROL_VERSION).tar.gz
FW_UPDATE_CONTROL_LICENSE = Apache-2.0
FW_UPDATE_CONTROL_LICENSE_FILES = LICENSE
FW_UPDATE_CONTROL_INSTALL_STAGING = YES
FW_UPDATE_CONTROL_DEPENDENCIES = host-pkgconf boost jsoncpp openssl
FW_UPDATE_CONTROL_CONF_OPTS = -DFW_UPDATE_TOOLS=OFF -DCMAKE_INSTALL_LIBDIR=lib

ifeq ($(BR2_PACKAGE_FW_UPDATE_CONTROL_PLATFORM),y)
FW_UPDATE_CONTROL_CONF_OPTS += -DFW_UPDATE_PLATFORM=linux
FW_UPDATE_CONTROL_DEPENDENCIES += cli11 libcurl systemd
else
FW_UPDATE_CONTROL_CONF_OPTS += -DFW_UPDATE_PLATFORM=none
endif

$(eval $(cmake-package))
