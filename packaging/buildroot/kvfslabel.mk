################################################################################
#
# kvfslabel
#
################################################################################

KVFSLABEL_VERSION = 1.0.0
KVFSLABEL_SOURCE = kvfs-$(KVFSLABEL_VERSION).tar.xz
KVFSLABEL_SITE = https://kvfs.invalid
# The compiler's C++ headers are used, its runtime library is not. The tool has
# the library in it.
KVFSLABEL_CONF_OPTS = -DKVFS_BUILD_TESTS=OFF -DBUILD_SHARED_LIBS=OFF

define KVFSLABEL_INSTALL_TARGET_CMDS
	$(TARGET_MAKE_ENV) DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) \
		--install $(KVFSLABEL_BUILDDIR) --component tool
endef

$(eval $(cmake-package))
