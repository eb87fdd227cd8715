// How the dense-kernel front ends steer the BLAS library's own threads and
// its work buffers.
#pragma once

#include <cstddef>

namespace nrt::detail {

// Sets the BLAS library's thread count for a call about to be made from here:
// 1 inside an OpenMP parallel region (the region already uses the cores), the
// BLAS domain's count outside. Changes the library's setting only when it
// differs from what was last set.
void prepareBlasThreads();

// Thread count last given to the BLAS library, or -1 before the first call.
int blasThreadsInEffect() noexcept;

// What OpenBLAS maps for the work buffer of one calling thread: its buffer
// size for x86-64 plus the page it aligns with and the C library's header.
inline constexpr std::size_t kBlasBufferBytes = (std::size_t{128} << 20) + 2 * 4096;

// Bytes that may still be mapped under the address-space limit, or -1 when
// there is no limit.
long long addressSpaceLeft() noexcept;

} // namespace nrt::detail
