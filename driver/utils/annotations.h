// driver/utils/annotations.h: Clang's thread-safety attributes, empty elsewhere
// SPDX-License-Identifier: GPL-2.0-only
#ifndef TRAK_UTILS_ANNOTATIONS_H
#define TRAK_UTILS_ANNOTATIONS_H

#if defined(__clang__)
#define TRAK_ATTRIBUTE(x) __attribute__((x))
#else
#define TRAK_ATTRIBUTE(x)
#endif

#define TRAK_CAPABILITY(name) TRAK_ATTRIBUTE(capability(name))
#define TRAK_SCOPED_CAPABILITY TRAK_ATTRIBUTE(scoped_lockable)
#define TRAK_GUARDED_BY(lock) TRAK_ATTRIBUTE(guarded_by(lock))
#define TRAK_REQUIRES(...) TRAK_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TRAK_REQUIRES_SHARED(...) TRAK_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define TRAK_ACQUIRE(...) TRAK_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRAK_ACQUIRE_SHARED(...) TRAK_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define TRAK_TRY_ACQUIRE(...) TRAK_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define TRAK_TRY_ACQUIRE_SHARED(...) TRAK_ATTRIBUTE(try_acquire_shared_capability(__VA_ARGS__))
#define TRAK_RELEASE(...) TRAK_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TRAK_RELEASE_SHARED(...) TRAK_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define TRAK_EXCLUDES(...) TRAK_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define TRAK_NO_THREAD_SAFETY_ANALYSIS TRAK_ATTRIBUTE(no_thread_safety_analysis)

#endif
