// tests/vm/contract/proc.c: os/proc.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/proc.h"

#include <linux/delay.h>
#include <linux/err.h>
#include <linux/slab.h>

#include "os/task.h"
#include "tests/vm/contract/contract.h"

static struct os_proc_entry *folder;

static struct os_proc_entry *make(const char *name, os_proc_read_fn read, os_proc_write_fn write,
                                  void *data) {
    struct os_proc_entry *entry;

    if (!folder)
        folder = os_proc_mkdir("trak_contract", NULL);
    entry = folder ? os_create_proc_entry(name, 0644, folder) : NULL;
    if (EXPECT(entry))
        os_proc_set_ops(entry, read, write, data);
    return entry;
}

static void remove_all(void) {
    struct os_proc_entry *child;

    while ((child = os_proc_first_child(folder)))
        os_remove_proc_entry(child);
    os_remove_proc_entry(folder);
    folder = NULL;
}

// What a process reads of the file, in pieces; a negative errno when it can't.
static ssize_t read_file(const char *path, char *text, size_t size, size_t piece) {
    struct file *file = filp_open(path, O_RDONLY, 0);
    ssize_t got;

    if (IS_ERR(file))
        return PTR_ERR(file);
    got = contract_read(file, text, size, piece);
    contract_close(file);
    return got;
}

static int read_text(char *page, char **start, long offset, int count, int *eof, void *data) {
    *eof = 1;
    return snprintf(page, OS_PAGE_SIZE, "%s", (const char *)data);
}

static void a_text_is_read_whole_and_in_pieces(void) {
    char text[64];

    ASSERT(make("text", read_text, NULL, "a text of one line\n"));
    EXPECT(read_file("/proc/trak_contract/text", text, sizeof(text), 64) == 19);
    EXPECT(strcmp(text, "a text of one line\n") == 0);
    EXPECT(read_file("/proc/trak_contract/text", text, sizeof(text), 1) == 19);
    EXPECT(strcmp(text, "a text of one line\n") == 0);
    remove_all();
}

static int read_page(char *page, char **start, long offset, int count, int *eof, void *data) {
    memset(page, 'x', OS_PAGE_SIZE);
    return OS_PAGE_SIZE;
}

static int read_beyond(char *page, char **start, long offset, int count, int *eof, void *data) {
    return OS_PAGE_SIZE + 1;
}

static void a_text_fills_a_page_and_no_more(void) {
    char *text = kmalloc(2 * OS_PAGE_SIZE, GFP_KERNEL);

    ASSERT(text);
    if (EXPECT(make("page", read_page, NULL, NULL)) &&
        EXPECT(make("beyond", read_beyond, NULL, NULL))) {
        EXPECT(read_file("/proc/trak_contract/page", text, 2 * OS_PAGE_SIZE, 1000) == OS_PAGE_SIZE);
        EXPECT(text[0] == 'x' && text[OS_PAGE_SIZE - 1] == 'x');
        EXPECT(read_file("/proc/trak_contract/beyond", text, 100, 100) == -EIO);
    }
    kfree(text);
    remove_all();
}

// Twelve bytes at most for each call, from wherever the reader is: start lies in the page.
static int read_moving(char *page, char **start, long offset, int count, int *eof, void *data) {
    int n = min(count, 12);

    *start = page + 7;
    if (offset >= 60)
        return 0;
    memset(*start, 'a' + offset / 12, n);
    return n;
}

static void a_reader_is_served_from_where_it_is(void) {
    char text[128];

    ASSERT(make("moving", read_moving, NULL, NULL));
    EXPECT(read_file("/proc/trak_contract/moving", text, sizeof(text), 100) == 60);
    EXPECT(text[0] == 'a' && text[12] == 'b' && text[59] == 'e');
    remove_all();
}

static int read_failing(char *page, char **start, long offset, int count, int *eof, void *data) {
    return -EBUSY;
}

static void an_error_reaches_the_reader(void) {
    char text[16];

    ASSERT(make("failing", read_failing, NULL, NULL));
    EXPECT(read_file("/proc/trak_contract/failing", text, sizeof(text), 16) == -EBUSY);
    remove_all();
}

static int write_text(void *file, os_uaddr buffer, unsigned long count, void *data) {
    char *text = data;

    if (count >= 32 || os_copy_from_user(text, buffer, count))
        return -EINVAL;
    text[count] = '\0';
    return count;
}

static void what_is_written_reaches_the_callback(void) {
    char text[32] = "";
    struct file *file;

    ASSERT(make("written", NULL, write_text, text));
    file = filp_open("/proc/trak_contract/written", O_WRONLY, 0);
    if (EXPECT(!IS_ERR(file))) {
        EXPECT(contract_write(file, "some words") == 10);
        EXPECT(strcmp(text, "some words") == 0);
        EXPECT(contract_write(file, "more words than the callback has room for") == -EINVAL);
        contract_close(file);
    }
    remove_all();
}

static void the_tree_is_walked_in_the_order_of_making(void) {
    struct os_proc_entry *a = make("a", NULL, NULL, NULL), *b = make("b", NULL, NULL, NULL);

    ASSERT(a && b);
    EXPECT(strcmp(os_proc_name(a), "a") == 0);
    EXPECT(os_proc_parent(a) == folder && os_proc_parent(folder) == NULL);
    EXPECT(os_proc_first_child(folder) == a && os_proc_next(a) == b && !os_proc_next(b));
    EXPECT(!os_proc_first_child(b));
    EXPECT(!os_create_proc_entry("a", 0444, folder)); /* there is one */
    EXPECT(!os_proc_mkdir("b", folder));
    os_remove_proc_entry(a);
    EXPECT(os_proc_first_child(folder) == b);
    remove_all();
}

static struct {
    struct os_completion entered, leave;
    int left;
} slow;

static int read_slowly(char *page, char **start, long offset, int count, int *eof, void *data) {
    os_complete(&slow.entered);
    os_wait_for_completion(&slow.leave);
    *eof = 1;
    WRITE_ONCE(slow.left, 1);
    return 0;
}

static void let_leave(void *arg) {
    msleep(200); /* for the removal to be waiting; the test holds however long that takes */
    os_complete(&slow.leave);
}

static void call_slowly(void *arg) {
    struct file *file = arg;

    /* No user memory is touched: the callback has nothing to say. */
    EXPECT(file->f_op->read(file, (char __user *)0x10000, 16, &file->f_pos) == 0);
}

static void removal_waits_for_the_callback_that_runs(void) {
    struct contract_thread reader, releaser;
    struct os_proc_entry *entry = make("slow", read_slowly, NULL, NULL);
    struct file *file;

    ASSERT(entry);
    memset(&slow, 0, sizeof(slow));
    os_init_completion(&slow.entered);
    os_init_completion(&slow.leave);
    file = filp_open("/proc/trak_contract/slow", O_RDONLY, 0);
    ASSERT(!IS_ERR(file));
    ASSERT(contract_start(&reader, call_slowly, file) > 0);
    os_wait_for_completion(&slow.entered);
    ASSERT(contract_start(&releaser, let_leave, NULL) > 0);
    os_remove_proc_entry(entry);
    EXPECT(READ_ONCE(slow.left) == 1);
    contract_join(&reader);
    contract_join(&releaser);
    EXPECT(file->f_op->read(file, (char __user *)0x10000, 16, &file->f_pos) < 0); /* gone */
    contract_close(file);
    remove_all();
}

const struct contract_test proc_tests[] = {
    CONTRACT(proc, a_text_is_read_whole_and_in_pieces),
    CONTRACT(proc, a_text_fills_a_page_and_no_more),
    CONTRACT(proc, a_reader_is_served_from_where_it_is),
    CONTRACT(proc, an_error_reaches_the_reader),
    CONTRACT(proc, what_is_written_reaches_the_callback),
    CONTRACT(proc, the_tree_is_walked_in_the_order_of_making),
    CONTRACT(proc, removal_waits_for_the_callback_that_runs),
    {},
};
