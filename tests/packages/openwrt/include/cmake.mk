# How a package is built that has a CMakeLists.txt.

$(PKG_BUILD_DIR)/.built: $(PKG_BUILD_DIR)/.prepared
	cd $(PKG_BUILD_DIR) && cmake . -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr $(CMAKE_OPTIONS)
	$(MAKE) -C $(PKG_BUILD_DIR)
	$(if $(PKG_INSTALL),$(MAKE) -C $(PKG_BUILD_DIR) install DESTDIR=$(PKG_INSTALL_DIR))
	touch $@
