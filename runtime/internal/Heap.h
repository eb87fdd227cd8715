// The replaceable system heap operations under every allocator of the runtime.
#pragma once

#include <cstddef>

namespace nrt::detail {

void* heapMalloc(std::size_t size) noexcept;
void* heapCalloc(std::size_t count, std::size_t size) noexcept;
void* heapRealloc(void* p, std::size_t size) noexcept;
void heapFree(void* p) noexcept;

// Alignment as the allocators use it: 1 for "none" (below 4), a power of two
// as given, 64 for anything else.
std::size_t effectiveAlignment(int alignment) noexcept;

} // namespace nrt::detail
