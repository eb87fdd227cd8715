// Owned arrays of the solver and the accounting behind iparm[14] to iparm[16].
//
// Every array that hangs on a handle is a Block: it comes from the aligned
// allocator of the runtime services (alignment 128, so that panels start on a
// cache line and on a page-colour boundary alike), it adds size / 1024 + 1
// kilobytes to the handle's counter while it lives, and it carries the
// internal code that names it when it cannot be had (-400 for STRUC_S0 ...).
// A failed allocation throws AllocationFailure inside the solver; the stage
// boundary turns it into status -2 with that code. Nothing allocated so far
// is given back by the failure: the handle keeps it until phase -1, so the
// caller's objects are as they were and nothing leaks.
//
// Sizes are checked before they are multiplied: a count whose bytes do not
// fit a signed 64-bit value fails with the same code instead of wrapping.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

namespace skyrinse::spds {

// Thrown inside the solver only; never crosses the C entry.
struct AllocationFailure {
    int code;           // internal code that names the block (-100, -400, ...)
    std::int64_t bytes; // size that could not be had
};

// Thrown by the checked size helpers; the stage turns it into its overflow code.
struct SizeOverflow {};

// Running kilobyte counters of one handle.
class MemoryCounter {
public:
    void add(std::int64_t bytes) {
        m_currentKb += kilobytes(bytes);
        m_peakKb = std::max(m_peakKb, m_currentKb);
    }
    void remove(std::int64_t bytes) { m_currentKb -= kilobytes(bytes); }
    std::int64_t currentKb() const { return m_currentKb; }
    std::int64_t peakKb() const { return m_peakKb; }
    // The peak restarts from what is live now, at the start of an analysis.
    void restartPeak() { m_peakKb = m_currentKb; }

    static std::int64_t kilobytes(std::int64_t bytes) { return bytes / 1024 + 1; }

private:
    std::int64_t m_currentKb = 0;
    std::int64_t m_peakKb = 0;
};

// Checked arithmetic for sizes; throws SizeOverflow instead of wrapping.
inline std::int64_t checkedMul(std::int64_t a, std::int64_t b) {
    std::int64_t r = 0;
    if (a < 0 || b < 0 || __builtin_mul_overflow(a, b, &r)) throw SizeOverflow{};
    return r;
}
inline std::int64_t checkedAdd(std::int64_t a, std::int64_t b) {
    std::int64_t r = 0;
    if (a < 0 || b < 0 || __builtin_add_overflow(a, b, &r)) throw SizeOverflow{};
    return r;
}

void* allocateAligned(std::size_t bytes);
void releaseAligned(void* p);

// Asks a Block of plain values to leave them unset: for arrays that are
// written in full before anything reads them, where the zero fill would be
// a pass over the memory for nothing.
struct NoFill {};
inline constexpr NoFill kNoFill{};

// An owned array of count elements of T on the aligned heap.
template <class T>
class Block {
public:
    Block() = default;
    // Zero-initialised (value-initialised for class types).
    Block(std::int64_t count, int failureCode, MemoryCounter* counter)
        : Block(count, failureCode, counter, true) {}
    Block(std::int64_t count, int failureCode, MemoryCounter* counter, NoFill)
        : Block(count, failureCode, counter, false) {
        static_assert(std::is_trivially_default_constructible_v<T>);
    }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    Block(Block&& other) noexcept { swap(other); }
    Block& operator=(Block&& other) noexcept {
        Block(std::move(other)).swap(*this);
        return *this;
    }
    ~Block() { reset(); }

    void reset() {
        if (!m_data) return;
        if constexpr (!std::is_trivially_destructible_v<T>) std::destroy_n(m_data, m_count);
        releaseAligned(m_data);
        if (m_counter) m_counter->remove(m_bytes);
        m_data = nullptr;
        m_count = 0;
        m_bytes = 0;
    }
    void swap(Block& other) noexcept {
        std::swap(m_data, other.m_data);
        std::swap(m_count, other.m_count);
        std::swap(m_bytes, other.m_bytes);
        std::swap(m_counter, other.m_counter);
    }

    T* data() { return m_data; }
    const T* data() const { return m_data; }
    std::int64_t size() const { return m_count; }
    std::int64_t bytes() const { return m_bytes; }
    bool empty() const { return m_data == nullptr; }
    T& operator[](std::int64_t i) { return m_data[i]; }
    const T& operator[](std::int64_t i) const { return m_data[i]; }
    std::span<T> span() { return {m_data, static_cast<std::size_t>(m_count)}; }
    std::span<const T> span() const { return {m_data, static_cast<std::size_t>(m_count)}; }
    T* begin() { return m_data; }
    T* end() { return m_data + m_count; }
    const T* begin() const { return m_data; }
    const T* end() const { return m_data + m_count; }

private:
    Block(std::int64_t count, int failureCode, MemoryCounter* counter, bool fill)
        : m_counter(counter) {
        if (count < 0 ||
            count >
                std::numeric_limits<std::int64_t>::max() / static_cast<std::int64_t>(sizeof(T)) - 1)
            throw AllocationFailure{failureCode, std::numeric_limits<std::int64_t>::max()};
        const std::int64_t bytes = std::max<std::int64_t>(1, count) * sizeof(T);
        void* p = allocateAligned(static_cast<std::size_t>(bytes));
        if (!p) throw AllocationFailure{failureCode, bytes};
        m_data = static_cast<T*>(p);
        m_count = count;
        m_bytes = bytes;
        if constexpr (std::is_trivially_default_constructible_v<T>) {
            if (fill) std::memset(p, 0, static_cast<std::size_t>(bytes));
        } else {
            (void)fill;
            std::uninitialized_value_construct_n(m_data, count);
        }
        if (m_counter) m_counter->add(m_bytes);
    }

    T* m_data = nullptr;
    std::int64_t m_count = 0;
    std::int64_t m_bytes = 0;
    MemoryCounter* m_counter = nullptr;
};

using IntBlock = Block<int>;

} // namespace skyrinse::spds
