// Aligned allocator: large, long-lived arrays of the solver.
//
// Layout of a block, from the system pointer b to the end:
//
//   b ... [user size][alignment][b] p ... p + size ...
//
// The word just before the caller's pointer p holds b, so release needs
// nothing but p. The two words before it let reallocation keep the block's
// alignment and move exactly the caller's bytes when the system moves the
// block to an address of a different residue.

#include "runtime/internal/Heap.h"
#include "runtime/nrt.h"

#include <cstdint>
#include <cstring>
#include <limits>

namespace nrt::detail {
namespace {

constexpr std::size_t kWord = sizeof(std::uintptr_t);
constexpr std::size_t kHeader = 4 * kWord; // three words used, keeps 16-byte steps

struct Header {
    std::size_t userSize;
    std::size_t alignment;
    void* block;
};

Header readHeader(const void* p) noexcept {
    Header h;
    const auto* bytes = static_cast<const unsigned char*>(p);
    std::memcpy(&h.userSize, bytes - 3 * kWord, kWord);
    std::memcpy(&h.alignment, bytes - 2 * kWord, kWord);
    std::memcpy(&h.block, bytes - kWord, kWord);
    return h;
}

void writeHeader(void* p, const Header& h) noexcept {
    auto* bytes = static_cast<unsigned char*>(p);
    std::memcpy(bytes - 3 * kWord, &h.userSize, kWord);
    std::memcpy(bytes - 2 * kWord, &h.alignment, kWord);
    std::memcpy(bytes - kWord, &h.block, kWord);
}

// Bytes to ask the system for; 0 on overflow. "No alignment" adds nothing.
std::size_t systemSize(std::size_t size, std::size_t alignment) noexcept {
    const std::size_t extra = kHeader + (alignment > 1 ? alignment : 0);
    if (size > std::numeric_limits<std::size_t>::max() - extra) return 0;
    return size + extra;
}

// Offset of the caller's pointer inside a system block at address block.
std::size_t userOffset(std::uintptr_t block, std::size_t alignment) noexcept {
    if (alignment <= 1) return kHeader;
    // Rounding down block + header + alignment always leaves at least the
    // header in front and at most header + alignment.
    const std::uintptr_t p = (block + kHeader + alignment) & ~(std::uintptr_t{alignment} - 1);
    return static_cast<std::size_t>(p - block);
}

} // namespace
} // namespace nrt::detail

using namespace nrt::detail;

extern "C" void* nrt_malloc(size_t size, int alignment) {
    if (size == 0) return nullptr;
    const std::size_t a = effectiveAlignment(alignment);
    const std::size_t total = systemSize(size, a);
    if (total == 0) return nullptr;
    void* block = heapMalloc(total);
    if (block == nullptr) return nullptr;
    void* p =
        static_cast<unsigned char*>(block) + userOffset(reinterpret_cast<std::uintptr_t>(block), a);
    writeHeader(p, {size, a, block});
    return p;
}

extern "C" void* nrt_calloc(size_t count, size_t size, int alignment) {
    if (count == 0 || size == 0 || count > std::numeric_limits<std::size_t>::max() / size)
        return nullptr;
    void* p = nrt_malloc(count * size, alignment);
    if (p != nullptr) std::memset(p, 0, count * size);
    return p;
}

extern "C" void* nrt_realloc(void* p, size_t size, int alignment) {
    if (p == nullptr) return nrt_malloc(size, alignment);
    if (size == 0) {
        nrt_free(p);
        return nullptr;
    }
    const Header old = readHeader(p);
    const std::size_t total = systemSize(size, old.alignment);
    if (total == 0) return nullptr;
    const std::size_t oldOffset = static_cast<std::size_t>(static_cast<unsigned char*>(p) -
                                                           static_cast<unsigned char*>(old.block));
    void* block = heapRealloc(old.block, total);
    if (block == nullptr) return nullptr;

    auto* base = static_cast<unsigned char*>(block);
    const auto address = reinterpret_cast<std::uintptr_t>(base + oldOffset);
    std::size_t offset = oldOffset;
    if (old.alignment > 1 && address % old.alignment != 0) {
        // The system moved the block to another residue: slide the contents
        // to the aligned position inside the new block.
        offset = userOffset(reinterpret_cast<std::uintptr_t>(block), old.alignment);
        std::memmove(base + offset, base + oldOffset, old.userSize < size ? old.userSize : size);
    }
    void* q = base + offset;
    writeHeader(q, {size, old.alignment, block});
    return q;
}

extern "C" void nrt_free(void* p) {
    if (p == nullptr) return;
    void* block = readHeader(p).block;
    if (block != nullptr) heapFree(block);
}
