# tests/vm/inject/sources.mk: every C file of the module trak_spare
# SPDX-License-Identifier: GPL-2.0-only
TRAK_SPARE := spare.c
