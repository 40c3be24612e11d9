// tests/vm/contract/file.c: files of os/file.h
// SPDX-License-Identifier: GPL-2.0-only
#include "os/file.h"

#include <linux/err.h>

#include "os/memory.h"
#include "tests/vm/contract/contract.h"

#define NAME "/tmp/contract_file"

static struct os_file *make(void) {
    return os_filp_open(NAME, OS_O_RDWR | OS_O_CREAT | OS_O_TRUNC, 0600);
}

static void what_was_written_is_read(void) {
    struct os_file *file = make();
    char text[32] = "";
    int64_t pos = 1000;

    ASSERT(!os_is_err(file));
    EXPECT(os_vfs_write(file, "0123456789", 10, &pos) == 10);
    EXPECT(pos == 1010);
    EXPECT(os_file_size(file) == 1010);
    EXPECT(os_vfs_fsync(file) == 0);
    pos = 1004;
    EXPECT(os_vfs_read(file, text, sizeof(text), &pos) == 6); /* fewer, at the end */
    EXPECT(pos == 1010 && strcmp(text, "456789") == 0);
    EXPECT(os_vfs_read(file, text, sizeof(text), &pos) == 0);
    pos = 0;
    EXPECT(os_vfs_read(file, text, 4, &pos) == 4 && !memchr_inv(text, 0, 4)); /* the hole */
    EXPECT(os_filp_close(file) == 0);
}

enum { PAGES = 300 };

/* Takes up with a page that was cut once more from its beginning. */
static bool write_pages(struct os_file *file, struct os_page *const *pages, int64_t at) {
    int64_t pos = at;
    uint32_t whole = 0;

    while (whole < PAGES) {
        int64_t before = pos;
        long n = os_vfs_write_pages(file, pages + whole, PAGES - whole, &pos);

        if (!EXPECT(n > 0) || !EXPECT(pos == before + n))
            return false;
        whole += n / OS_PAGE_SIZE;
        pos -= n % OS_PAGE_SIZE;
    }
    return true;
}

static bool shows_pages(struct os_file *file, struct os_page *const *pages, int64_t at, char *got) {
    int64_t pos = at;
    uint32_t i;

    for (i = 0; i < PAGES; i++)
        if (!EXPECT(os_vfs_read(file, got, OS_PAGE_SIZE, &pos) == OS_PAGE_SIZE) ||
            !EXPECT(memcmp(got, os_page_address(pages[i]), OS_PAGE_SIZE) == 0))
            return false;
    return true;
}

/* Where a page of the file begins, which is where long runs may go straight to the disk, and elsewhere; into
 * what the file has in memory already. */
static void pages_are_written_one_behind_the_other(void) {
    static const int64_t places[] = {OS_PAGE_SIZE, 0, 1000, 2 * OS_PAGE_SIZE + 512};
    static struct os_page *pages[PAGES + 1]; /* the last one to read with */
    struct os_file *file = make();
    uint32_t i;

    ASSERT(!os_is_err(file));
    for (i = 0; i <= PAGES; i++) {
        pages[i] = os_alloc_page(OS_GFP_KERNEL);
        if (!EXPECT(pages[i]))
            goto done;
        memset(os_page_address(pages[i]), i % 251, OS_PAGE_SIZE);
    }
    for (i = 0; i < ARRAY_SIZE(places); i++) {
        ((char *)os_page_address(pages[0]))[0] = 'a' + i;
        if (!write_pages(file, pages, places[i]) ||
            !shows_pages(file, pages, places[i], os_page_address(pages[PAGES])))
            break;
    }
    EXPECT(os_file_size(file) == places[3] + (int64_t)PAGES * OS_PAGE_SIZE);
done:
    for (i = 0; i <= PAGES && pages[i]; i++)
        os_free_page(pages[i]);
    EXPECT(os_filp_close(file) == 0);
}

static void truncation_empties_the_file(void) {
    struct os_file *file = make();
    int64_t pos = 0;

    ASSERT(!os_is_err(file));
    EXPECT(os_vfs_write(file, "text", 4, &pos) == 4);
    EXPECT(os_filp_close(file) == 0);
    file = os_filp_open(NAME, OS_O_RDWR, 0);
    ASSERT(!os_is_err(file));
    EXPECT(os_file_size(file) == 4);
    EXPECT(os_filp_close(file) == 0);
    file = os_filp_open(NAME, OS_O_RDWR | OS_O_TRUNC | OS_O_LARGEFILE, 0600);
    ASSERT(!os_is_err(file));
    EXPECT(os_file_size(file) == 0);
    EXPECT(os_filp_close(file) == 0);
}

static void what_cannot_be_opened_says_why(void) {
    EXPECT(os_ptr_err(os_filp_open("/tmp/contract_missing", OS_O_RDONLY, 0)) == -ENOENT);
    EXPECT(os_ptr_err(os_filp_open("/tmp", OS_O_RDWR, 0)) == -EISDIR);
    EXPECT(os_ptr_err(os_filp_open("tmp/relative", OS_O_RDONLY, 0)) == -EINVAL);
    EXPECT(os_ptr_err(os_filp_open(NAME "/below", OS_O_RDONLY, 0)) == -ENOTDIR);
}

static void a_write_that_fails_leaves_the_position(void) {
    struct os_file *file = make();
    int64_t pos = -5;

    ASSERT(!os_is_err(file));
    EXPECT(os_vfs_write(file, "text", 4, &pos) < 0);
    EXPECT(pos == -5 && os_file_size(file) == 0);
    EXPECT(os_filp_close(file) == 0);
}

static void what_cannot_be_synced_is_no_failure(void) {
    struct os_file *file = os_filp_open("/dev/null", OS_O_RDWR, 0);

    ASSERT(!os_is_err(file));
    EXPECT(os_vfs_fsync(file) == 0);
    EXPECT(os_filp_close(file) == 0);
}

static void open_and_close(void *arg) {
    struct os_file *file = os_filp_open(NAME "_of_thread", OS_O_RDWR | OS_O_CREAT, 0600);
    struct file *real = (struct file *)file;
    struct inode *inode;

    ASSERT(!os_is_err(file));
    inode = file_inode(real);
    EXPECT(atomic_read(&inode->i_writecount) == 1);
    ihold(inode);
    EXPECT(os_filp_close(file) == 0);
    EXPECT(atomic_read(&inode->i_writecount) == 0);
    iput(inode);
}

static void a_thread_lets_its_file_go_at_once(void) {
    struct contract_thread thread;

    ASSERT(contract_start(&thread, open_and_close, NULL) > 0);
    contract_join(&thread);
}

const struct contract_test file_tests[] = {
    CONTRACT(file, what_was_written_is_read),
    CONTRACT(file, pages_are_written_one_behind_the_other),
    CONTRACT(file, truncation_empties_the_file),
    CONTRACT(file, what_cannot_be_opened_says_why),
    CONTRACT(file, a_write_that_fails_leaves_the_position),
    CONTRACT(file, what_cannot_be_synced_is_no_failure),
    CONTRACT(file, a_thread_lets_its_file_go_at_once),
    {},
};
