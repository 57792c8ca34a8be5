# SPDX-License-Identifier: GPL-2.0-only
#
# make -f platform/linux/module.mk [KDIR=...] [BUILD=...] [DEBUG=1] [module|module-clean]
#
# Builds $(BUILD)/snbf.ko for the kernel whose headers are in KDIR (default: the newest installed).

SNBF_TREE := $(abspath $(dir $(lastword $(MAKEFILE_LIST)))/../..)
BUILD ?= $(SNBF_TREE)/build
KDIR ?= $(or $(lastword $(shell ls -d /usr/src/linux-headers-*-amd64 2>/dev/null | sort -V)), \
             /lib/modules/$(shell uname -r)/build)
DEBUG ?= 0

SNBF_OBJECTS := $(abspath $(BUILD))/module
SNBF_FOLDERS := $(patsubst $(SNBF_TREE)/%/,$(SNBF_OBJECTS)/%,$(sort $(dir \
  $(wildcard $(SNBF_TREE)/platform/linux/*.c $(SNBF_TREE)/driver/*.cpp $(SNBF_TREE)/driver/*/*.cpp))))

# objtool looks at the whole module at once (delay-objtool), as it does by itself on kernels with IBT:
# only so does it see that a failed assertion, which is a call into another object, never returns.
# No BTF: it would come from debug information, and the tool that derives it stops at C++ types.
.PHONY: module module-clean
module:
	@mkdir -p $(SNBF_FOLDERS)
	@printf '%s\n' 'snbf-tree := $(SNBF_TREE)' 'snbf-debug := $(DEBUG)' \
	  'include $$(snbf-tree)/platform/linux/Kbuild' > $(SNBF_OBJECTS)/Kbuild
	@$(MAKE) --no-print-directory -C $(KDIR) M=$(SNBF_OBJECTS) delay-objtool=y \
	  CONFIG_DEBUG_INFO_BTF_MODULES= modules
	@cmp -s $(SNBF_OBJECTS)/snbf.ko $(BUILD)/snbf.ko || cp $(SNBF_OBJECTS)/snbf.ko $(BUILD)/snbf.ko

module-clean:
	rm -rf $(SNBF_OBJECTS) $(BUILD)/snbf.ko
