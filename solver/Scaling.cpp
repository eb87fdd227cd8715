// Permutation and scalings from a matching; see Scaling.h.
//
// The symmetric factor is computed as exp((u + v) / 2) rather than as the
// square root of a product of two exponentials, so that duals of large
// opposite magnitude (badly scaled rows) do not overflow on the way.
#include "Scaling.h"

#include <cmath>
#include <cstddef>

namespace skyrinse::spds {

bool scalesSymmetrically(int mtype) {
    return mtype == -4 || mtype == -2 || mtype == 6;
}

template <class T>
void buildScaling(int mode, int mtype, std::span<const int> match, std::span<const T> u,
                  std::span<const T> v, std::span<int> permutation, std::span<double> rowScale,
                  std::span<double> colScale) {
    const std::size_t n = permutation.size();
    for (std::size_t i = 0; i < n; ++i) {
        permutation[i] = mode == kScalingIdentity ? static_cast<int>(i) + 1 : match[i] + 1;
        if (mode != kScalingFull) {
            rowScale[i] = 1.0;
            colScale[i] = 1.0;
            continue;
        }
        const double ui = static_cast<double>(u[i]);
        const double vi = static_cast<double>(v[i]);
        rowScale[i] = scalesSymmetrically(mtype) ? std::exp(0.5 * (ui + vi)) : std::exp(ui);
        colScale[i] = std::exp(vi);
    }
}

template void buildScaling<float>(int, int, std::span<const int>, std::span<const float>,
                                  std::span<const float>, std::span<int>, std::span<double>,
                                  std::span<double>);
template void buildScaling<double>(int, int, std::span<const int>, std::span<const double>,
                                   std::span<const double>, std::span<int>, std::span<double>,
                                   std::span<double>);

} // namespace skyrinse::spds
