# os/linux/sources.mk: every C file of the glue
# SPDX-License-Identifier: GPL-2.0-only
TRAK_GLUE := \
	bdev.c \
	bio.c \
	disk.c \
	freeze.c \
	lock.c \
	module.c \
	queue.c
