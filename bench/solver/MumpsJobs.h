// The MUMPS call sequence of the benchmarks: create an instance, analyse,
// factorize and solve (each job timed on its own), release. One template
// over the instance struct of a precision (DMUMPS_STRUC_C, ZMUMPS_STRUC_C)
// and its entry point, so that the real and the complex benchmarks run
// MUMPS the same way and each includes only the MUMPS header it has.
#pragma once

#include "runtime/nrt.h"

#include <vector>

namespace bench {

// One-based coordinates of a one-based upper triangle by rows.
struct MumpsCoordinates {
    std::vector<int> irn, jcn;
    MumpsCoordinates(int n, const std::vector<int>& ia, const std::vector<int>& ja) {
        irn.reserve(ja.size());
        jcn.reserve(ja.size());
        for (int i = 0; i < n; ++i)
            for (int k = ia[static_cast<std::size_t>(i)] - 1;
                 k < ia[static_cast<std::size_t>(i) + 1] - 1; ++k) {
                irn.push_back(i + 1);
                jcn.push_back(ja[static_cast<std::size_t>(k)]);
            }
    }
};

struct MumpsJobs {
    int failedJob = 0; // the first job that failed (1 to 3), 0 when none did
    int infog1 = 0;    // INFOG(1) and INFOG(2) after that job
    int infog2 = 0;
    double analysis = 0, factorization = 0, solve = 0; // seconds
    double nnzFactor = 0;                              // INFOG(29)
};

// sym: 1 positive definite, 2 general symmetric (MUMPS's SYM). rhs holds
// the right-hand side on entry and the solution on return. MUMPS keeps its
// own defaults, ordering choice included, as a user of the library gets
// them; only its printing is switched off.
template <class Instance, class Scalar>
MumpsJobs runMumpsJobs(void (*entry)(Instance*), int sym, int n, MumpsCoordinates& c,
                       Scalar* values, Scalar* rhs) {
    Instance id{};
    id.comm_fortran = -987654; // the sequential library's communicator
    id.par = 1;
    id.sym = sym;
    id.job = -1;
    entry(&id);
    id.icntl[0] = id.icntl[1] = id.icntl[2] = id.icntl[3] = 0;
    id.n = n;
    id.nnz = static_cast<decltype(id.nnz)>(c.irn.size());
    id.irn = c.irn.data();
    id.jcn = c.jcn.data();
    id.a = values;
    id.rhs = rhs;
    MumpsJobs r;
    double* seconds[3] = {&r.analysis, &r.factorization, &r.solve};
    // Each job only when the one before it succeeded, so that the failure
    // named is the first one.
    for (int job = 1; job <= 3 && r.failedJob == 0; ++job) {
        id.job = job;
        const double t0 = nrt_seconds();
        entry(&id);
        *seconds[job - 1] = nrt_seconds() - t0;
        if (id.infog[0] < 0) {
            r.failedJob = job;
            r.infog1 = id.infog[0];
            r.infog2 = id.infog[1];
        }
    }
    r.nnzFactor = static_cast<double>(id.infog[28]);
    id.job = -2;
    entry(&id);
    return r;
}

} // namespace bench
