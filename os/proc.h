// os/proc.h: small text files under /proc, with the classic callbacks
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_PROC_H
#define TRAK_OS_PROC_H

#include "os/base.h"
#include "os/uaccess.h"

OS_BEGIN

struct os_proc_entry;

/* Fills a page of OS_PAGE_SIZE bytes; returns the length of the text or a negative errno. */
typedef int (*os_proc_read_fn)(char *page, char **start, long offset, int count, int *eof,
                               void *data);
/* Takes count bytes from the caller's memory; returns count or a negative errno. */
typedef int (*os_proc_write_fn)(void *file, os_uaddr buffer, unsigned long count, void *data);

/* Parent null: the top of /proc. Null on failure. Context: sleep. */
struct os_proc_entry *os_proc_mkdir(const char *name, struct os_proc_entry *parent) OS_MUST_CHECK;
struct os_proc_entry *os_create_proc_entry(const char *name, uint32_t mode,
                                           struct os_proc_entry *parent) OS_MUST_CHECK;
void os_proc_set_ops(struct os_proc_entry *entry, os_proc_read_fn read, os_proc_write_fn write,
                     void *data);
const char *os_proc_name(const struct os_proc_entry *entry);
struct os_proc_entry *os_proc_parent(const struct os_proc_entry *entry);
struct os_proc_entry *os_proc_first_child(const struct os_proc_entry *entry); /* null: none */
struct os_proc_entry *os_proc_next(const struct os_proc_entry *entry);        /* sibling or null */
/* Removes an entry without children from its parent; returns once no callback of it runs. */
void os_remove_proc_entry(struct os_proc_entry *entry);

OS_END

#endif
