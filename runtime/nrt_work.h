/*
 * nrt_work.h - how much of the machine a piece of numerical work is worth.
 *
 * The same rules as nrt.h: any thread may call these at any time, they never
 * fail, and thread counts are at least 1.
 */
#ifndef SKYRINSE_RUNTIME_NRT_WORK_H
#define SKYRINSE_RUNTIME_NRT_WORK_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Threads worth starting for work of `work` units when each thread should
 * get at least `grain` of them: work / grain, at most `limit` and at least 1.
 * A limit below 1 means nrt_get_max_threads(). Every parallel loop of the
 * image code sizes its team with it, so that one rule decides when a team
 * costs more than it saves. */
int nrt_threads_for_work(long long work, long long grain, int limit);

/* Address space that a team of `threads` threads of the numerical code, the
 * calling thread among them, reserves besides its data: a BLAS work buffer
 * each, and a stack and an allocator arena for each thread but the caller,
 * whose own exist already. Little of it is touched, so it counts against an
 * address-space limit (ulimit -v) rather than against the memory available.
 * A count below 1 counts as 1. */
size_t nrt_thread_reserve_bytes(int threads);

#ifdef __cplusplus
}
#endif

#endif /* SKYRINSE_RUNTIME_NRT_WORK_H */
