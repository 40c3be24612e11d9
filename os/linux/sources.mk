# os/linux/sources.mk: every C file of the glue
# SPDX-License-Identifier: GPL-2.0-only
TRAK_GLUE := \
	bdev.c \
	bio.c \
	chardev.c \
	disk.c \
	file.c \
	freeze.c \
	lock.c \
	log.c \
	memory.c \
	module.c \
	path.c \
	proc.c \
	queue.c \
	random.c \
	task.c \
	time.c \
	uaccess.c \
	wait.c
