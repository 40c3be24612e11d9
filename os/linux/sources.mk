# os/linux/sources.mk: every C file of the glue
# SPDX-License-Identifier: GPL-2.0-only
TRAK_GLUE := \
	lock.c \
	module.c
