# os/linux/compat/2.6.32/flags.mk: what the headers of kernel 2.6.32 need of a compiler of today
# SPDX-License-Identifier: GPL-2.0-only
#
# The glue is C of today, the kernel's headers are of their own time: their inline functions are GNU's, and
# they do much of what compilers warn of by now.
ccflags-y += -std=gnu11 -fgnu89-inline -Wno-declaration-after-statement -Wno-attributes \
	-Wa,--no-warn
