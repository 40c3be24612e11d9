// tests/vm/contract/newer/compat_contract.h: what the contract suite asks of newer kernels
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_TESTS_VM_COMPAT_CONTRACT_H
#define TRAK_TESTS_VM_COMPAT_CONTRACT_H

#include <linux/bio.h>
#include <linux/interrupt.h>
#include <linux/minmax.h>
#include <linux/mm.h>
#include <linux/mman.h>
#include <linux/printk.h>
#include <linux/sched/signal.h>
#include <linux/wait.h>

/* The tasks of a wait queue. */
#define waiters_of(queue) (&(queue)->head)

#endif
