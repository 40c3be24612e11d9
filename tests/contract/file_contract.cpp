// tests/contract/file_contract.cpp: what os/file.h promises of open files, on every platform
// SPDX-License-Identifier: GPL-2.0-only
#include <cstring>

#include "tests/contract/platform.h"

namespace contract::file_tests {

namespace {

std::string in_scratch(const char *name) {
    return scratch() + "/" + name;
}

os_file *open_file(const std::string &path, int flags) {
    return os_filp_open(path.c_str(), flags, 0600);
}

// The driver's own way: until all is moved.
long write_all(os_file *file, std::int64_t pos, const void *buf, std::size_t count) {
    std::size_t done = 0;
    while (done < count) {
        long n = os_vfs_write(file, static_cast<const char *>(buf) + done, count - done, &pos);
        if (n <= 0)
            return n;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<long>(done);
}

long read_all(os_file *file, std::int64_t pos, void *buf, std::size_t count) {
    std::size_t done = 0;
    while (done < count) {
        long n = os_vfs_read(file, static_cast<char *>(buf) + done, count - done, &pos);
        if (n < 0)
            return n;
        if (n == 0)
            break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<long>(done);
}

// A file with this text.
void make_file(const std::string &path, const std::string &text) {
    os_file *file = open_file(path, OS_O_WRONLY | OS_O_CREAT | OS_O_TRUNC);
    ASSERT_FALSE(os_is_err(file));
    EXPECT_EQ(write_all(file, 0, text.data(), text.size()), static_cast<long>(text.size()));
    EXPECT_EQ(os_filp_close(file), 0);
}

std::string text_of(const std::string &path) {
    os_file *file = open_file(path, OS_O_RDONLY);
    if (os_is_err(file))
        return "?";
    char text[256];
    long n = read_all(file, 0, text, sizeof text);
    EXPECT_EQ(os_filp_close(file), 0);
    return n < 0 ? "?" : std::string(text, static_cast<std::size_t>(n));
}

}  // namespace

TEST(file, open_of_a_missing_file_fails_with_enoent) {
    run([] {
        os_file *file = open_file(in_scratch("missing"), OS_O_RDONLY);
        ASSERT_TRUE(os_is_err(file));
        EXPECT_EQ(os_ptr_err(file), -ENOENT);
        file = open_file(in_scratch("missing/too"), OS_O_RDWR | OS_O_CREAT);
        ASSERT_TRUE(os_is_err(file));
        EXPECT_EQ(os_ptr_err(file), -ENOENT);
    });
}

TEST(file, created_file_is_empty_and_there) {
    run([] {
        std::string path = in_scratch("new");
        os_file *file = open_file(path, OS_O_WRONLY | OS_O_CREAT);
        ASSERT_FALSE(os_is_err(file));
        EXPECT_EQ(os_file_size(file), 0);
        EXPECT_TRUE(exists(path));
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

TEST(file, what_was_written_is_read_and_the_position_moves) {
    run([] {
        os_file *file = open_file(in_scratch("f"), OS_O_RDWR | OS_O_CREAT);
        ASSERT_FALSE(os_is_err(file));
        std::int64_t pos = 0;
        long written = os_vfs_write(file, "abcdef", 6, &pos);
        ASSERT_GT(written, 0);
        EXPECT_EQ(pos, written);
        pos = 0;
        char text[8] = {};
        long got = os_vfs_read(file, text, static_cast<std::size_t>(written), &pos);
        ASSERT_GT(got, 0);
        EXPECT_EQ(pos, got);
        EXPECT_EQ(std::memcmp(text, "abcdef", static_cast<std::size_t>(got)), 0);
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

TEST(file, read_at_the_end_gives_zero_and_before_it_what_is_there) {
    run([] {
        make_file(in_scratch("f"), "0123456789");
        os_file *file = open_file(in_scratch("f"), OS_O_RDONLY);
        ASSERT_FALSE(os_is_err(file));
        char text[32];
        EXPECT_EQ(read_all(file, 4, text, sizeof text), 6);
        EXPECT_EQ(std::memcmp(text, "456789", 6), 0);
        std::int64_t pos = 10;
        EXPECT_EQ(os_vfs_read(file, text, sizeof text, &pos), 0);
        EXPECT_EQ(pos, 10);
        pos = 1000;
        EXPECT_EQ(os_vfs_read(file, text, sizeof text, &pos), 0);
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

TEST(file, write_beyond_the_end_leaves_zeroes_between) {
    run([] {
        os_file *file = open_file(in_scratch("f"), OS_O_RDWR | OS_O_CREAT);
        ASSERT_FALSE(os_is_err(file));
        EXPECT_EQ(write_all(file, 10000, "end", 3), 3);
        EXPECT_EQ(os_file_size(file), 10003);
        std::vector<char> bytes(10003, 'x');
        EXPECT_EQ(read_all(file, 0, bytes.data(), bytes.size()), 10003);
        for (int i = 0; i < 10000; i++)
            ASSERT_EQ(bytes[static_cast<std::size_t>(i)], 0);
        EXPECT_EQ(std::memcmp(bytes.data() + 10000, "end", 3), 0);
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

TEST(file, pages_are_written_one_behind_the_other_and_the_position_moves) {
    run([] {
        static constexpr std::uint32_t kPages = 700;
        static constexpr std::int64_t kAt = 1000;  // not where a page of the file begins
        os_file *file = open_file(in_scratch("f"), OS_O_RDWR | OS_O_CREAT);
        ASSERT_FALSE(os_is_err(file));
        std::vector<os_page *> pages(kPages);
        for (std::uint32_t i = 0; i < kPages; i++) {
            pages[i] = os_alloc_page(OS_GFP_KERNEL);
            ASSERT_NE(pages[i], nullptr);
            std::memset(os_page_address(pages[i]), static_cast<int>(i % 251), OS_PAGE_SIZE);
        }
        std::int64_t pos = kAt;
        std::uint32_t whole = 0;
        while (whole < kPages) {
            const std::int64_t before = pos;
            const long n = os_vfs_write_pages(file, &pages[whole], kPages - whole, &pos);
            ASSERT_GT(n, 0);
            ASSERT_EQ(pos, before + n);
            whole += static_cast<std::uint32_t>(n / OS_PAGE_SIZE);
            pos -= n % OS_PAGE_SIZE;  // a page that was cut: once more
        }
        EXPECT_EQ(os_file_size(file), kAt + std::int64_t{kPages} * OS_PAGE_SIZE);
        unsigned char got[OS_PAGE_SIZE];
        for (std::uint32_t i = 0; i < kPages; i++) {
            EXPECT_EQ(read_all(file, kAt + std::int64_t{i} * OS_PAGE_SIZE, got, sizeof got),
                      OS_PAGE_SIZE);
            ASSERT_EQ(std::memcmp(got, os_page_address(pages[i]), sizeof got), 0) << i;
            os_free_page(pages[i]);
        }
        EXPECT_EQ(read_all(file, 0, got, kAt), kAt);
        EXPECT_EQ(got[0], 0);
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

TEST(file, pages_are_refused_by_a_file_open_for_reading) {
    run([] {
        make_file(in_scratch("f"), "text");
        os_file *file = open_file(in_scratch("f"), OS_O_RDONLY);
        ASSERT_FALSE(os_is_err(file));
        os_page *page = os_alloc_page(OS_GFP_KERNEL);
        ASSERT_NE(page, nullptr);
        std::memset(os_page_address(page), 0, OS_PAGE_SIZE);
        std::int64_t pos = 0;
        EXPECT_LT(os_vfs_write_pages(file, &page, 1, &pos), 0);
        EXPECT_EQ(pos, 0);
        os_free_page(page);
        EXPECT_EQ(os_filp_close(file), 0);
        EXPECT_EQ(text_of(in_scratch("f")), "text");
    });
}

TEST(file, write_inside_changes_those_bytes_alone) {
    run([] {
        make_file(in_scratch("f"), "0123456789");
        os_file *file = open_file(in_scratch("f"), OS_O_RDWR);
        ASSERT_FALSE(os_is_err(file));
        EXPECT_EQ(write_all(file, 3, "ab", 2), 2);
        EXPECT_EQ(os_file_size(file), 10);
        EXPECT_EQ(os_filp_close(file), 0);
        EXPECT_EQ(text_of(in_scratch("f")), "012ab56789");
    });
}

TEST(file, truncation_at_open_empties_the_file) {
    run([] {
        make_file(in_scratch("f"), "0123456789");
        os_file *file =
            os_filp_open(in_scratch("f").c_str(), OS_O_RDWR | OS_O_TRUNC | OS_O_LARGEFILE, 0600);
        ASSERT_FALSE(os_is_err(file));
        EXPECT_EQ(os_file_size(file), 0);
        EXPECT_EQ(os_filp_close(file), 0);
        EXPECT_EQ(text_of(in_scratch("f")), "");
    });
}

TEST(file, truncation_without_create_makes_no_file) {
    run([] {
        os_file *file =
            os_filp_open(in_scratch("f").c_str(), OS_O_RDWR | OS_O_TRUNC | OS_O_LARGEFILE, 0600);
        ASSERT_TRUE(os_is_err(file));
        EXPECT_EQ(os_ptr_err(file), -ENOENT);
        EXPECT_FALSE(exists(in_scratch("f")));
    });
}

TEST(file, create_of_an_existing_file_keeps_its_contents) {
    run([] {
        make_file(in_scratch("f"), "kept");
        os_file *file = open_file(in_scratch("f"), OS_O_RDWR | OS_O_CREAT);
        ASSERT_FALSE(os_is_err(file));
        EXPECT_EQ(os_file_size(file), 4);
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

TEST(file, files_serve_only_what_they_were_opened_for) {
    run([] {
        make_file(in_scratch("f"), "text");
        char byte = 'x';
        std::int64_t pos = 0;
        os_file *file = open_file(in_scratch("f"), OS_O_RDONLY);
        ASSERT_FALSE(os_is_err(file));
        EXPECT_LT(os_vfs_write(file, &byte, 1, &pos), 0);
        EXPECT_EQ(os_filp_close(file), 0);
        file = open_file(in_scratch("f"), OS_O_WRONLY);
        ASSERT_FALSE(os_is_err(file));
        EXPECT_LT(os_vfs_read(file, &byte, 1, &pos), 0);
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

TEST(file, a_folder_can_not_be_written_or_read) {
    run([] {
        make_folder(in_scratch("dir"));
        os_file *file = open_file(in_scratch("dir"), OS_O_RDWR);
        ASSERT_TRUE(os_is_err(file));
        EXPECT_EQ(os_ptr_err(file), -EISDIR);
        file = open_file(in_scratch("dir"), OS_O_WRONLY | OS_O_CREAT | OS_O_TRUNC);
        ASSERT_TRUE(os_is_err(file));
        EXPECT_EQ(os_ptr_err(file), -EISDIR);
        file = open_file(in_scratch("dir"), OS_O_RDONLY);
        if (!os_is_err(file)) {
            char byte;
            std::int64_t pos = 0;
            EXPECT_EQ(os_vfs_read(file, &byte, 1, &pos), -EISDIR);
            EXPECT_EQ(os_filp_close(file), 0);
        }
    });
}

TEST(file, fsync_and_synchronous_writes_succeed) {
    run([] {
        os_file *file = open_file(in_scratch("f"), OS_O_RDWR | OS_O_CREAT | OS_O_SYNC);
        ASSERT_FALSE(os_is_err(file));
        EXPECT_EQ(write_all(file, 0, "durable", 7), 7);
        EXPECT_EQ(os_vfs_fsync(file), 0);
        EXPECT_EQ(os_filp_close(file), 0);
        EXPECT_EQ(text_of(in_scratch("f")), "durable");
    });
}

TEST(file, an_unlinked_file_serves_whoever_has_it_open) {
    run([] {
        std::string path = in_scratch("f");
        make_file(path, "still here");
        os_file *file = open_file(path, OS_O_RDONLY);
        ASSERT_FALSE(os_is_err(file));
        os_parent *parent = os_path_parent(path.c_str());
        ASSERT_FALSE(os_is_err(parent));
        os_parent_lock(parent);
        os_dentry *dentry = os_lookup_hash(parent);
        ASSERT_FALSE(os_is_err(dentry));
        EXPECT_EQ(os_vfs_unlink(parent, dentry), 0);
        os_dput(dentry);
        os_parent_unlock(parent);
        os_parent_put(parent);
        EXPECT_FALSE(exists(path));
        char text[10];
        EXPECT_EQ(read_all(file, 0, text, sizeof text), 10);
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

TEST(file, two_handles_see_one_file) {
    run([] {
        os_file *writer = open_file(in_scratch("f"), OS_O_WRONLY | OS_O_CREAT);
        os_file *reader = open_file(in_scratch("f"), OS_O_RDONLY);
        ASSERT_FALSE(os_is_err(writer));
        ASSERT_FALSE(os_is_err(reader));
        EXPECT_EQ(write_all(writer, 0, "shared", 6), 6);
        char text[6];
        EXPECT_EQ(read_all(reader, 0, text, 6), 6);
        EXPECT_EQ(std::memcmp(text, "shared", 6), 0);
        EXPECT_EQ(os_file_size(reader), 6);
        EXPECT_EQ(os_filp_close(writer), 0);
        EXPECT_EQ(os_filp_close(reader), 0);
    });
}

TEST(file, offsets_beyond_four_gigabytes_are_reached) {
    run([] {
        std::int64_t far = (std::int64_t{5} << 30) + 123;
        os_file *file =
            os_filp_open(in_scratch("f").c_str(), OS_O_RDWR | OS_O_CREAT | OS_O_LARGEFILE, 0600);
        ASSERT_FALSE(os_is_err(file));
        EXPECT_EQ(write_all(file, far, "far", 3), 3);
        EXPECT_EQ(os_file_size(file), far + 3);
        char text[3];
        EXPECT_EQ(read_all(file, far, text, 3), 3);
        EXPECT_EQ(std::memcmp(text, "far", 3), 0);
        EXPECT_EQ(os_filp_close(file), 0);
    });
}

}  // namespace contract::file_tests
