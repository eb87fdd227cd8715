// The peers of the solver benchmark, each behind one function: analysis,
// factorization and solve of a symmetric system given as the one-based upper
// triangle by rows (the form SPDS takes), each phase timed on its own.
#pragma once

#include <cmath>
#include <complex>
#include <cstddef>
#include <string>
#include <vector>

namespace bench {

struct Problem {
    std::string name;
    int n = 0;
    std::vector<int> ia; // one-based rows of the upper triangle, diagonal included
    std::vector<int> ja;
    std::vector<double> a;
    bool definite = true; // positive definite: Cholesky peers apply
};

struct Timing {
    bool ran = false; // the peer exists in this build and accepted the system
    std::string note; // why not, or what went wrong
    double analysis = 1e30;
    double factorization = 1e30;
    double solve = 1e30;
    double residual = 0;  // ||A x - b|| / ||b|| of the last repetition
    double nnzFactor = 0; // entries of the factor as the peer reports them
    double total() const { return analysis + factorization + solve; }
    void keepBest(double an, double fa, double so);
};

// ||A x - b|| / ||b|| with the stored upper triangle used for both halves.
// ||A x - b|| / ||b|| for a one-based upper triangle stored by rows, real or
// complex (the triangle mirrored without conjugates).
template <class Matrix, class Scalar>
double residual(const Matrix& p, const std::vector<Scalar>& x, const std::vector<Scalar>& b) {
    std::vector<Scalar> r(b.size(), Scalar(0));
    for (int i = 0; i < p.n; ++i)
        for (int k = p.ia[i] - 1; k < p.ia[i + 1] - 1; ++k) {
            const int j = p.ja[k] - 1;
            r[i] += p.a[k] * x[j];
            if (j != i) r[j] += p.a[k] * x[i];
        }
    double rr = 0, bb = 0;
    for (std::size_t i = 0; i < b.size(); ++i) {
        rr += std::norm(r[i] - b[i]);
        bb += std::norm(b[i]);
    }
    return std::sqrt(rr / (bb > 0 ? bb : 1));
}

Timing runCholmod(const Problem& p, const std::vector<double>& b, int repetitions);
Timing runMumps(const Problem& p, const std::vector<double>& b, int repetitions);
Timing runEigen(const Problem& p, const std::vector<double>& b, int repetitions);

} // namespace bench
