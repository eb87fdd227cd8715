// How the dense-kernel front ends steer the BLAS library's own threads.
#pragma once

namespace nrt::detail {

// Sets the BLAS library's thread count for a call about to be made from here:
// 1 inside an OpenMP parallel region (the region already uses the cores), the
// BLAS domain's count outside. Changes the library's setting only when it
// differs from what was last set.
void prepareBlasThreads();

// Thread count last given to the BLAS library, or -1 before the first call.
int blasThreadsInEffect() noexcept;

} // namespace nrt::detail
