# What does not depend on how a package is built: the sources, the folders, and the call for each package.

PKG_BUILD_DIR = $(BASE_DIR)/build_dir/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR = $(PKG_BUILD_DIR)/ipkg-install
STAGING_DIR = $(BASE_DIR)/staging_dir

all: $(STAGING_DIR)/.installed

$(PKG_BUILD_DIR)/.prepared:
	mkdir -p $(@D)
	tar --extract --file $(BASE_DIR)/dl/$(PKG_SOURCE) --directory $(@D) --strip-components=1
	touch $@

$(STAGING_DIR)/.installed: $(PKG_BUILD_DIR)/.built
	$(call Build/InstallDev,$(STAGING_DIR))
	touch $@

required = $(if $($(2)),,$(error $(1) has no $(2)))

# $(call BuildPackage,name): the package's files are put together in a folder of its name.
define BuildPackage
SECTION :=
CATEGORY :=
TITLE :=
$(Package/$(1))
$$(foreach field,SECTION CATEGORY TITLE Package/$(1)/description,$$(call required,$(1),$$(field)))

all: $(BASE_DIR)/packages/$(1)
$(BASE_DIR)/packages/$(1): $(PKG_BUILD_DIR)/.built
	$$(call Package/$(1)/install,$$@)
endef
