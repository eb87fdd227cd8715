// A view that indexes an array from 1, as the solver's index arrays count:
// element k of the view is element k-1 of the storage. It keeps loops that
// follow one-based pointers (xlindx, xlnz, ...) free of -1 corrections.
#pragma once

#include <cstdint>

namespace skyrinse::spds {

template <class T>
struct OneBased {
    T* p;
    OneBased(T* storage) : p(storage) {}
    // A view of mutable storage reads as a view of const storage.
    template <class U>
    OneBased(const OneBased<U>& other) : p(other.p) {}
    T& operator[](std::int64_t k) const { return p[k - 1]; }
};

template <class T>
OneBased<T> oneBased(T* p) {
    return OneBased<T>(p);
}

} // namespace skyrinse::spds
