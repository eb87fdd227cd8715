// The row split shared by the pixel steps: one parallel region over the rows
// of a window, static contiguous chunks, so every thread streams through a
// band of memory and the result never depends on the team size.
#pragma once

#include "runtime/nrt_work.h"

#include <algorithm>
#include <cstdint>

namespace prim::detail {

// Fewer components than this per thread cost more in starting the team than
// they save.
inline constexpr std::int64_t kMinComponentsPerThread = 1 << 15;

template <typename RowFunction>
void forEachRow(int height, std::int64_t componentsPerRow, int threads, RowFunction&& body) {
    const int team = threads > 1 ? std::min(std::max(height, 1),
                                            nrt_threads_for_work(componentsPerRow * height,
                                                                 kMinComponentsPerThread, threads))
                                 : 1;
    if (team <= 1) {
        // No region at all: even a team of one costs a team's set-up, and
        // callers that are themselves in a region call this once a row.
        for (int y = 0; y < height; ++y)
            body(y);
        return;
    }
#pragma omp parallel for schedule(static) num_threads(team)
    for (int y = 0; y < height; ++y)
        body(y);
}

} // namespace prim::detail
