# Stands in for OpenWrt, together with the files of include/: builds with the machine's own compiler, below $(BASE_DIR),
# what a package of it describes.
INCLUDE_DIR := $(TOPDIR)/include
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
CP := cp -fpR
