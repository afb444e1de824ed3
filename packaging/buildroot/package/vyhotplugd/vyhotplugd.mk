################################################################################
#
# vyhotplugd
#
################################################################################

# This tree is a part of the sources that it builds.
VYHOTPLUGD_VERSION = local
VYHOTPLUGD_SITE = $(BR2_EXTERNAL_VYHOTPLUGD_PATH)/../..
VYHOTPLUGD_SITE_METHOD = local
VYHOTPLUGD_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
VYHOTPLUGD_LICENSE = MIT
VYHOTPLUGD_LICENSE_FILES = LICENSE
VYHOTPLUGD_DEPENDENCIES = util-linux
VYHOTPLUGD_CONF_OPTS = \
	-DCMAKE_BUILD_TYPE=MinSizeRel \
	-DCMAKE_INSTALL_SBINDIR=sbin \
	-DCMAKE_INSTALL_LIBEXECDIR=libexec \
	-DVY_TESTS=OFF

ifeq ($(BR2_PACKAGE_VYHOTPLUGD_MIPS16),y)
VYHOTPLUGD_CONF_OPTS += -DVY_MIPS16=ON
endif

VYHOTPLUGD_APPLIANCE = $(@D)/docs/examples/appliance

define VYHOTPLUGD_INSTALL_FILES
	$(INSTALL) -D -m 0644 $(@D)/packaging/vyhotplugd.conf \
		$(TARGET_DIR)/etc/vyhotplugd/vyhotplugd.conf
	$(INSTALL) -D -m 0755 $(@D)/packaging/evhook \
		$(TARGET_DIR)/etc/vyhotplugd/evhook
	mkdir -p $(TARGET_DIR)/etc/default $(TARGET_DIR)/var/lib/vyhotplugd
endef
VYHOTPLUGD_POST_INSTALL_TARGET_HOOKS += VYHOTPLUGD_INSTALL_FILES

ifeq ($(BR2_PACKAGE_VYHOTPLUGD_MDEV),y)
define VYHOTPLUGD_INSTALL_MDEV
	printf 'agent=\nscan=/usr/sbin/vyhotplug-agent\n' \
		> $(TARGET_DIR)/etc/default/vyhotplugd
	$(SED) '/^adopt *=/d' $(TARGET_DIR)/etc/vyhotplugd/vyhotplugd.conf
	grep -qF vyhotplug-agent $(TARGET_DIR)/etc/mdev.conf || \
		cat $(VYHOTPLUGD_APPLIANCE)/mdev.conf \
			>> $(TARGET_DIR)/etc/mdev.conf
endef
VYHOTPLUGD_POST_INSTALL_TARGET_HOOKS += VYHOTPLUGD_INSTALL_MDEV
endif

# The bridges are no use without their servers.
define VYHOTPLUGD_REMOVE_SAMBA
	rm -f $(TARGET_DIR)/usr/sbin/vynas-samba \
		$(TARGET_DIR)/usr/sbin/vynas-samba-setup
endef
define VYHOTPLUGD_REMOVE_KSMBD
	rm -f $(TARGET_DIR)/usr/sbin/vynas-ksmbd
endef

ifeq ($(BR2_PACKAGE_VYHOTPLUGD_SAMBA),y)
VYHOTPLUGD_DEPENDENCIES += samba4
define VYHOTPLUGD_INSTALL_INIT_SERVER
	$(INSTALL) -D -m 0755 $(VYHOTPLUGD_APPLIANCE)/vynas-samba.init \
		$(TARGET_DIR)/etc/init.d/S93vynas-samba
endef
else
VYHOTPLUGD_POST_INSTALL_TARGET_HOOKS += VYHOTPLUGD_REMOVE_SAMBA
endif

ifeq ($(BR2_PACKAGE_VYHOTPLUGD_KSMBD),y)
define VYHOTPLUGD_INSTALL_INIT_SERVER
	sed 's/vynas-samba/vynas-ksmbd/g; s/Samba/ksmbd/g' \
		$(VYHOTPLUGD_APPLIANCE)/vynas-samba.init \
		> $(TARGET_DIR)/etc/init.d/S93vynas-ksmbd
	chmod 0755 $(TARGET_DIR)/etc/init.d/S93vynas-ksmbd
	$(INSTALL) -D -m 0755 \
		$(BR2_EXTERNAL_VYHOTPLUGD_PATH)/package/vyhotplugd/S92ksmbd \
		$(TARGET_DIR)/etc/init.d/S92ksmbd
endef
else
VYHOTPLUGD_POST_INSTALL_TARGET_HOOKS += VYHOTPLUGD_REMOVE_KSMBD
endif

define VYHOTPLUGD_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(VYHOTPLUGD_APPLIANCE)/vyhotplugd.init \
		$(TARGET_DIR)/etc/init.d/S91vyhotplugd
	$(VYHOTPLUGD_INSTALL_INIT_SERVER)
endef

# An account for clients; ksmbd.adduser or smbpasswd gives it a password.
define VYHOTPLUGD_USERS
	share 1000 users 100 * - - - Plugged-in storage
endef

define VYHOTPLUGD_PERMISSIONS
	/etc/vyhotplugd d 0755 0 0 - - - - -
	/var/lib/vyhotplugd d 0755 0 0 - - - - -
endef

$(eval $(cmake-package))
