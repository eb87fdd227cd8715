// The peers of the solver benchmark, each behind one function: analysis,
// factorization and solve of a symmetric system given as the one-based upper
// triangle by rows (the form SPDS takes), each phase timed on its own.
#pragma once

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
double residual(const Problem& p, const std::vector<double>& x, const std::vector<double>& b);

Timing runCholmod(const Problem& p, const std::vector<double>& b, int repetitions);
Timing runMumps(const Problem& p, const std::vector<double>& b, int repetitions);
Timing runEigen(const Problem& p, const std::vector<double>& b, int repetitions);

} // namespace bench
