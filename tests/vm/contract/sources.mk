# tests/vm/contract/sources.mk: every C file of the contract suite's module
# SPDX-License-Identifier: GPL-2.0-only
TRAK_CONTRACT := \
	bio.c \
	chardev.c \
	disk.c \
	file.c \
	helpers.c \
	lock.c \
	log.c \
	main.c \
	memory.c \
	memory_disk.c \
	path.c \
	proc.c \
	task.c \
	uaccess.c \
	wait.c
