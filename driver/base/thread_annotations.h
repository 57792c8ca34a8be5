// SPDX-License-Identifier: GPL-2.0-only
// Clang's thread-safety annotations; nothing with other compilers.
#pragma once

#if defined(__clang__)
#define SNBF_ANNOTATE(x) __attribute__((x))
#else
#define SNBF_ANNOTATE(x)
#endif

#define CAPABILITY(name) SNBF_ANNOTATE(capability(name))
#define SCOPED_CAPABILITY SNBF_ANNOTATE(scoped_lockable)
#define GUARDED_BY(lock) SNBF_ANNOTATE(guarded_by(lock))
#define PT_GUARDED_BY(lock) SNBF_ANNOTATE(pt_guarded_by(lock))
#define ACQUIRED_AFTER(...) SNBF_ANNOTATE(acquired_after(__VA_ARGS__))
#define ACQUIRED_BEFORE(...) SNBF_ANNOTATE(acquired_before(__VA_ARGS__))
#define REQUIRES(...) SNBF_ANNOTATE(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) SNBF_ANNOTATE(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) SNBF_ANNOTATE(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) SNBF_ANNOTATE(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) SNBF_ANNOTATE(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) SNBF_ANNOTATE(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) SNBF_ANNOTATE(release_generic_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) SNBF_ANNOTATE(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) SNBF_ANNOTATE(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS SNBF_ANNOTATE(no_thread_safety_analysis)
