// The row split shared by the pixel steps: one parallel region over the rows
// of a window, static contiguous chunks, so every thread streams through a
// band of memory and the result never depends on the team size.
#pragma once

#include <cstdint>

namespace prim::detail {

// Below this many components per call a team costs more than it saves.
inline constexpr std::int64_t kMinParallelComponents = 1 << 16;

template <typename RowFunction>
void forEachRow(int height, std::int64_t componentsPerRow, int threads, RowFunction&& body) {
    const bool parallel =
        threads > 1 && height > 1 && componentsPerRow * height >= kMinParallelComponents;
#pragma omp parallel for schedule(static) num_threads(parallel ? threads : 1) if (parallel)
    for (int y = 0; y < height; ++y)
        body(y);
}

} // namespace prim::detail
