// The system a solve works on, as the caller handed it to one `spds` call:
// what refinement and the iterative solvers both need, filled in one place by
// the driver. Arrays are the caller's, one-based CSR.
#pragma once

#include <cstdint>
#include <cstring>

namespace skyrinse::spds {

struct SystemRequest {
    int n = 0;
    int nrhs = 1;
    const void* a = nullptr;
    const int* ia = nullptr;
    const int* ja = nullptr;
    bool symmetricStorage = false;
    bool hermitian = false; // the stored triangle's mirror is its conjugate
    bool transpose = false;
    bool solutionInB = false;
};

// Where the right-hand side is read and the solution written. With
// solutionInB, x first receives a copy of b and the solution takes b's place.
template <class T>
struct SolutionPlace {
    const T* rhs;
    T* sol;
};

template <class T>
SolutionPlace<T> placeSolution(const SystemRequest& rq, T* b, T* x) {
    if (!rq.solutionInB) return {b, x};
    const std::size_t count = static_cast<std::size_t>(rq.n) * static_cast<std::size_t>(rq.nrhs);
    std::memcpy(x, b, count * sizeof(T));
    return {x, b};
}

} // namespace skyrinse::spds
