# tests/vm/contract/sources.mk: every C file of the contract suite's module
# SPDX-License-Identifier: GPL-2.0-only
# Those that a kernel line has a folder of its own for; the other lines share newer/.
TRAK_CONTRACT_LINE := $(if $(wildcard $(TRAK_TOP)/tests/vm/contract/$(TRAK_LINE)),$(TRAK_LINE),newer)
TRAK_CONTRACT := \
	bio.c \
	chardev.c \
	disk.c \
	file.c \
	freeze.c \
	helpers.c \
	hold.c \
	lock.c \
	log.c \
	main.c \
	memory.c \
	memory_disk.c \
	path.c \
	proc.c \
	task.c \
	uaccess.c \
	wait.c \
	$(TRAK_CONTRACT_LINE)/log_reader.c \
	$(TRAK_CONTRACT_LINE)/requests.c
