# os/linux/sources.mk: every C file of the glue but module.c, which makes a module of it
# SPDX-License-Identifier: GPL-2.0-only
TRAK_GLUE := \
	base.c \
	bdev.c \
	bio.c \
	chardev.c \
	disk.c \
	file.c \
	freeze.c \
	lock.c \
	log.c \
	memory.c \
	path.c \
	proc.c \
	queue.c \
	random.c \
	stat.c \
	super.c \
	task.c \
	time.c \
	uaccess.c \
	under_way.c \
	wait.c
