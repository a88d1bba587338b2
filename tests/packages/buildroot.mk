# Stands in for Buildroot: does for the package of the Makefile $(PACKAGE) what its infrastructure for CMake packages
# does, below $(BASE_DIR), with the machine's own compiler.

DL_DIR = $(BASE_DIR)/dl
TARGET_DIR = $(BASE_DIR)/target
TARGET_MAKE_ENV = PATH="$(PATH)"
BR2_CMAKE = cmake

name := $(basename $(notdir $(PACKAGE)))
prefix := $(shell echo $(name) | tr a-z A-Z)

# A macro without arguments, as packages call it.
define cmake-package
$(prefix)_DIR = $$(BASE_DIR)/build/$(name)-$$($(prefix)_VERSION)
$(prefix)_BUILDDIR = $$($(prefix)_DIR)

$(name): $$($(prefix)_DIR)/.stamp_target_installed
endef

include $(PACKAGE)

archive := $($(prefix)_SOURCE)

$($(prefix)_DIR)/.stamp_target_installed:
	test -n "$($(prefix)_SITE)"
	cd $(DL_DIR) && sed -n 's/^sha256  \(.*  $(archive)\)$$/\1/p' $(basename $(PACKAGE)).hash | sha256sum --check
	mkdir -p $(@D)
	tar --extract --file $(DL_DIR)/$(archive) --directory $(@D) --strip-components=1
	cd $($(prefix)_BUILDDIR) && $(BR2_CMAKE) . -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
		-DBUILD_SHARED_LIBS=ON $($(prefix)_CONF_OPTS)
	$(MAKE) -C $($(prefix)_BUILDDIR)
	$($(prefix)_INSTALL_TARGET_CMDS)
	touch $@
