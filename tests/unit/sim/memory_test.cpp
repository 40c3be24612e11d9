// tests/unit/sim/memory_test.cpp: leaks, overruns, late writes, wrong frees
// SPDX-License-Identifier: GPL-2.0-only
#include <cstring>

#include "os/disk.h"
#include "os/lock.h"
#include "os/memory.h"
#include "os/sim/sanitizer.h"
#include "os/task.h"
#include "tests/unit/sim/provoke.h"

namespace sim_tests::memory {

OS_MODULE_STATE int g_counter = 7;
OS_MODULE_STATE char g_text[16] = "first";
OS_MODULE_STATE void *g_zero;

TEST(sim_memory, a_leak_of_every_kind_is_found) {
    EXPECT_SAYS(failure_of([] { ASSERT_NE(os_kmalloc(123, OS_GFP_KERNEL), nullptr); }),
                "os_kmalloc of 123 bytes");
    EXPECT_SAYS(failure_of([] { ASSERT_NE(os_vmalloc(5000), nullptr); }),
                "os_vmalloc of 5000 bytes");
    EXPECT_SAYS(failure_of([] { ASSERT_NE(os_alloc_page(OS_GFP_KERNEL), nullptr); }), "page of");
    EXPECT_SAYS(failure_of([] { ASSERT_NE(os_bio_alloc(OS_GFP_KERNEL, 1), nullptr); }), "bio of");
    EXPECT_SAYS(failure_of([] { ASSERT_NE(os_kmem_cache_create("c", 8, 8), nullptr); }),
                "cache of");
    EXPECT_SAYS(failure_of([] {
                    ASSERT_FALSE(os_is_err(os_filp_open("/data/f", OS_O_CREAT | OS_O_RDWR, 0600)));
                }),
                "open file of");
    EXPECT_SAYS(failure_of([] { ASSERT_FALSE(os_is_err(os_path_lookup("/data", 1))); }),
                "directory entry of");
    EXPECT_SAYS(failure_of([] { ASSERT_FALSE(os_is_err(os_path_parent("/data/x"))); }),
                "parent folder of");
    EXPECT_SAYS(failure_of([] { ASSERT_NE(os_alloc_disk(1), nullptr); }), "disk of");
    EXPECT_SAYS(failure_of([] { ASSERT_NE(os_alloc_queue(OS_GFP_KERNEL), nullptr); }),
                "request queue of");
}

TEST(sim_memory, leaks_are_let_pass_when_asked) {
    sim::Options options;
    options.check_leaks = false;
    EXPECT_EQ(failure_of(options, [] { ASSERT_NE(os_kmalloc(1, OS_GFP_KERNEL), nullptr); }), "");
}

TEST(sim_memory, a_leak_on_purpose_is_counted_exactly) {
    EXPECT_EQ(failure_of([] {
                  ASSERT_NE(os_kmalloc(1, OS_GFP_KERNEL), nullptr);
                  sim::expect_leaked_pieces(1);
              }),
              "");
    EXPECT_SAYS(failure_of([] { sim::expect_leaked_pieces(1); }), "0 pieces were not given back");
    EXPECT_SAYS(failure_of([] {
                    ASSERT_NE(os_kmalloc(1, OS_GFP_KERNEL), nullptr);
                    ASSERT_NE(os_kmalloc(1, OS_GFP_KERNEL), nullptr);
                    sim::expect_leaked_pieces(1);
                }),
                "2 pieces were not given back (1 expected)");
}

TEST(sim_memory, new_memory_is_not_zero_and_freed_memory_is_spoilt) {
    Machine machine;
    machine.run(options_of(1), [] {
        auto *p = static_cast<unsigned char *>(os_kmalloc(64, OS_GFP_KERNEL));
        ASSERT_NE(p, nullptr);
        for (int i = 0; i < 64; i++)
            EXPECT_EQ(p[i], 0xa5);
        os_kfree(p);
    });
}

// What the address sanitizer sees kills the program; without it the simulator sees it later.
void expect_caught(void (*body)(), const char *sanitizer, const char *simulator) {
    if (OS_SIM_ASAN)
        EXPECT_DEATH((void)failure_of(body), sanitizer);
    else
        EXPECT_SAYS(failure_of(body), simulator);
}

TEST(sim_memory, a_write_beyond_the_end_is_found) {
    expect_caught(
        [] {
            auto *p = static_cast<volatile char *>(os_kmalloc(10, OS_GFP_KERNEL));
            p[10] = 1;
            os_kfree(const_cast<char *>(p));
        },
        "heap-buffer-overflow", "byte 0 beyond a piece of 10 bytes (os_kmalloc) was written to");
}

TEST(sim_memory, a_write_to_freed_memory_is_found) {
    expect_caught(
        [] {
            auto *p = static_cast<volatile char *>(os_kmalloc(10, OS_GFP_KERNEL));
            os_kfree(const_cast<char *>(p));
            p[3] = 1;
        },
        "heap-use-after-free", "freed memory was written to: byte 3");
}

TEST(sim_memory, a_write_to_memory_that_is_kept_for_later_is_found) {
    sim::keep_memory(1 << 20);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(failure_of([] {
                      auto *p = static_cast<unsigned char *>(os_vmalloc(100'000));
                      EXPECT_EQ(p[99'999], 0xa5);
                      p[99'999] = 1;
                      os_vfree(p);
                  }),
                  "");
    expect_caught(
        [] {
            auto *p = static_cast<volatile char *>(os_vmalloc(100'000));
            os_vfree(const_cast<char *>(p));
            p[3] = 1;
        },
        "use-after-poison", "freed memory was written to: byte 3");
    EXPECT_SAYS(failure_of([] { EXPECT_NE(os_vmalloc(100'000), nullptr); }), "not given back");
    sim::keep_memory(0);
}

TEST(sim_memory, overruns_and_late_writes_of_small_pieces_that_are_kept_are_found) {
    sim::keep_memory(1 << 20);
    for (int i = 0; i < 3; i++)  // more than rest before they are handed out again
        EXPECT_EQ(failure_of([] {
                      for (int k = 0; k < 100; k++) {
                          auto *p = static_cast<unsigned char *>(os_kmalloc(10, OS_GFP_KERNEL));
                          EXPECT_EQ(p[9], 0xa5);
                          std::memset(p, 1, 10);
                          os_kfree(p);
                      }
                  }),
                  "");
    expect_caught(
        [] {
            auto *p = static_cast<volatile char *>(os_kmalloc(10, OS_GFP_KERNEL));
            p[10] = 1;
            os_kfree(const_cast<char *>(p));
        },
        "use-after-poison", "byte 0 beyond a piece of 10 bytes (os_kmalloc) was written to");
    expect_caught(
        [] {
            auto *p = static_cast<volatile char *>(os_kmalloc(10, OS_GFP_KERNEL));
            os_kfree(const_cast<char *>(p));
            p[3] = 1;
        },
        "use-after-poison", "freed memory was written to: byte 3");
    EXPECT_SAYS(failure_of([] {
                    void *p = os_kmalloc(10, OS_GFP_KERNEL);
                    os_kfree(p);
                    os_kfree(p);
                }),
                "freed already");
    sim::keep_memory(0);
}

TEST(sim_memory, wrong_frees_are_found) {
    EXPECT_SAYS(failure_of([] { os_kfree(os_vmalloc(10)); }),
                "os_kfree: wants a os_kmalloc, got a os_vmalloc");
    EXPECT_SAYS(failure_of([] {
                    void *p = os_kmalloc(10, OS_GFP_KERNEL);
                    os_kfree(p);
                    os_kfree(p);
                }),
                "freed already");
}

TEST(sim_memory, a_pool_destroyed_with_elements_out_is_found) {
    EXPECT_SAYS(failure_of([] {
                    os_kmem_cache *cache = os_kmem_cache_create("c", 8, 8);
                    os_mempool *pool = os_mempool_create_slab(1, cache);
                    ASSERT_NE(os_mempool_alloc(pool, OS_GFP_KERNEL), nullptr);
                    os_mempool_destroy(pool);
                }),
                "1 elements were not given back");
    EXPECT_SAYS(failure_of([] {
                    os_kmem_cache *cache = os_kmem_cache_create("c", 8, 8);
                    ASSERT_NE(os_mempool_create_slab(1, cache), nullptr);
                    os_kmem_cache_destroy(cache);
                }),
                "1 pools still use the cache");
}

TEST(sim_memory, each_boot_starts_with_the_first_values_of_the_module) {
    for (int boot = 0; boot < 3; boot++) {
        Machine machine;
        machine.run(options_of(1), [] {
            EXPECT_EQ(g_counter, 7);
            EXPECT_STREQ(g_text, "first");
            EXPECT_EQ(g_zero, nullptr);
            g_counter = 8;
            std::strcpy(g_text, "second");
            g_zero = &g_counter;
        });
    }
}

TEST(sim_memory, user_addresses_are_no_host_pointers) {
    Machine machine;
    machine.run(options_of(1), [] {
        os_uaddr addr = sim::user_alloc(10);
        EXPECT_GT(addr, os_uaddr{1} << 32);
        EXPECT_NE(reinterpret_cast<os_uaddr>(sim::user_bytes(addr, 10).data()), addr);
        sim::user_free(addr);
    });
}

TEST(sim_memory, a_copy_ends_at_the_very_end_of_the_memory) {
    Machine machine;
    machine.run(options_of(1), [] {
        os_uaddr addr = sim::user_alloc(10);
        char bytes[16] = {};
        EXPECT_EQ(os_copy_to_user(addr, bytes, 16), 6u);
        EXPECT_EQ(os_copy_from_user(bytes, addr + 4, 16), 10u);
        sim::user_protect(addr, false, true);
        EXPECT_EQ(os_copy_from_user(bytes, addr, 1), 1u);
    });
}

TEST(sim_memory, kernel_threads_have_no_user_memory) {
    Machine machine;
    machine.run(options_of(1), [] {
        static os_uaddr addr;
        static os_completion done;
        addr = sim::user_alloc(1);
        os_init_completion(&done);
        ASSERT_GT(os_kernel_thread(
                      [](void *) {
                          char byte = 0;
                          EXPECT_EQ(os_copy_to_user(addr, &byte, 1), 1u);
                          os_complete_and_exit(&done, 0);
                          return 0;
                      },
                      nullptr, 0, "copier"),
                  0);
        os_wait_for_completion(&done);
    });
}

}  // namespace sim_tests::memory
