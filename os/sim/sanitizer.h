// os/sim/sanitizer.h: what the simulated kernel tells the sanitizers
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_OS_SIM_SANITIZER_H
#define TRAK_OS_SIM_SANITIZER_H

// OS_SIM_ASAN       the program has the address sanitizer.
// OS_SIM_ASAN_HERE  it looks at this very file too. The fuzz preset spares most of the simulated kernel,
//                   and says OS_SIM_ASAN on the command line.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OS_SIM_ASAN_HERE 1
#endif
#if __has_feature(thread_sanitizer)
#define OS_SIM_TSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define OS_SIM_ASAN_HERE 1
#endif
#if defined(__SANITIZE_THREAD__)
#define OS_SIM_TSAN 1
#endif

#ifndef OS_SIM_ASAN_HERE
#define OS_SIM_ASAN_HERE 0
#endif
#ifndef OS_SIM_ASAN
#define OS_SIM_ASAN OS_SIM_ASAN_HERE
#endif
#ifndef OS_SIM_TSAN
#define OS_SIM_TSAN 0
#endif

#if OS_SIM_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#define OS_SIM_POISON(p, size) __asan_poison_memory_region(p, size)
#define OS_SIM_UNPOISON(p, size) __asan_unpoison_memory_region(p, size)
#define OS_SIM_NO_ASAN __attribute__((no_sanitize("address")))
#else
#define OS_SIM_POISON(p, size) ((void)(p), (void)(size))
#define OS_SIM_UNPOISON(p, size) ((void)(p), (void)(size))
#define OS_SIM_NO_ASAN
#endif
#if OS_SIM_TSAN
#include <sanitizer/tsan_interface.h>
#endif

#endif
