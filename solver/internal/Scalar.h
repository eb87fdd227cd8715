// What the numeric stages need to know about an element type beyond its
// arithmetic: its magnitude type, the magnitude itself, the conjugate (the
// identity for real types), finiteness and the wider type of a residual.
//
// The complex types run through the same templates as the real ones; a
// matrix type chooses its element type once (spds.cpp), and the internal
// stages then see the real type whose algorithm they share (factorKind).
#pragma once

#include <cmath>
#include <complex>
#include <limits>
#include <type_traits>

namespace skyrinse::spds {

template <class T>
struct ScalarTraits {
    using Real = T;
    static constexpr bool isComplex = false;
};
template <class R>
struct ScalarTraits<std::complex<R>> {
    using Real = R;
    static constexpr bool isComplex = true;
};

template <class T>
using RealOf = typename ScalarTraits<T>::Real;
template <class T>
inline constexpr bool isComplexV = ScalarTraits<T>::isComplex;

template <class T>
RealOf<T> magnitude(const T& v) {
    return std::abs(v);
}

template <class T>
T conjugate(const T& v) {
    if constexpr (isComplexV<T>)
        return std::conj(v);
    else
        return v;
}

template <class T>
bool isFiniteValue(const T& v) {
    if constexpr (isComplexV<T>)
        return std::isfinite(v.real()) && std::isfinite(v.imag());
    else
        return std::isfinite(v);
}

// Whether a value meant to be real (the diagonal of a Hermitian matrix) has
// an imaginary part beyond the rounding of a computed product: 64 units of
// roundoff of its magnitude.
template <class T>
bool notReal(const T& v) {
    if constexpr (isComplexV<T>)
        return std::abs(v.imag()) > 64 * std::numeric_limits<RealOf<T>>::epsilon() * std::abs(v);
    else
        return false;
}

// The same kind of scalar in the wider real type W (complex when T is).
template <class T, class W>
using WidenedTo = std::conditional_t<isComplexV<T>, std::complex<W>, W>;

// Matrix types whose values are complex.
inline bool complexMatrixType(int mtype) {
    return mtype == 3 || mtype == 4 || mtype == -4 || mtype == 6 || mtype == 13;
}

// The real type whose factorization a complex type shares: structurally
// symmetric 3 as 1, Hermitian 4 and -4 as 2 and -2 (with conjugates),
// complex symmetric 6 as -2 (without), unsymmetric 13 as 11.
inline int factorKind(int mtype) {
    switch (mtype) {
    case 3:
        return 1;
    case 4:
        return 2;
    case -4:
    case 6:
        return -2;
    case 13:
        return 11;
    default:
        return mtype;
    }
}

} // namespace skyrinse::spds
