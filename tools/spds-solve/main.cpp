// spds-solve: solve a sparse system from a Matrix Market file with SPDS.
//
//   spds-solve [--mtype T] [--ordering 0..3] [--threads N] [--single]
//              [--refine STEPS] [--rhs FILE] [--out FILE] [--verbose] FILE.mtx
//
// The whole use of the solver in one place: build the one-based CSR arrays,
// analyse (phase 11), factorize (22), solve with refinement (33), print the
// residual, the backward error, the times, the inertia and the perturbed
// pivots, and release the handle (phase -1). The right-hand side is read
// from FILE (numbers separated by white space, lines starting with '%'
// skipped, a Matrix Market "array" header accepted; pairs of real and
// imaginary parts for a complex file) or is all ones.
//
// Exit status: 0 solved; 1 a file could not be read or written, or memory
// ran out; 2 bad usage; 3 the solver reported an error.
#include "MatrixMarket.h"

#include "runtime/nrt.h"
#include "spds.h"

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

constexpr int kExitSolved = 0;
constexpr int kExitFile = 1;
constexpr int kExitUsage = 2;
constexpr int kExitSolver = 3;

// --help prints this on standard output; bad usage on standard error. The
// manual page is generated from the --help text.
constexpr char kHelp[] =
    "Usage: spds-solve [OPTION]... FILE.mtx\n"
    "Solves the Matrix Market system FILE.mtx with SPDS and prints the statistics.\n"
    "\n"
    "  --mtype T        matrix type: 11 unsymmetric, 1 structurally symmetric,\n"
    "                   2 symmetric positive definite, -2 symmetric indefinite;\n"
    "                   complex: 13 unsymmetric, 3 structurally symmetric,\n"
    "                   4 Hermitian positive definite, -4 Hermitian indefinite,\n"
    "                   6 complex symmetric (default -2 for a symmetric file,\n"
    "                   11 otherwise; -4, 6, 13 for a complex file)\n"
    "  --ordering 0..3  fill-reducing ordering, iparm[1] (default 3)\n"
    "  --threads N      threads asked of the runtime\n"
    "  --single         factor in single precision (residuals still in double)\n"
    "  --refine STEPS   refinement steps asked (default 2; negative: the iterate\n"
    "                   is kept in the wider type)\n"
    "  --rhs FILE       right-hand side (default all ones)\n"
    "  --out FILE       write x as a Matrix Market array\n"
    "  --verbose        also print the threads granted and why, the solver's\n"
    "                   statistics and the refinement's figures\n"
    "  --help           print this help\n"
    "\n"
    "Exit status: 0 solved; 1 a file could not be read or written, or memory ran\n"
    "out; 2 bad usage; 3 the solver reported an error (an untrusted answer\n"
    "included).\n";

int usage(std::FILE* stream = stderr) {
    std::fputs(kHelp, stream);
    return stream == stdout ? kExitSolved : kExitUsage;
}

using Complex = std::complex<double>;

bool writeSolution(const char* path, const std::vector<double>& x) {
    std::FILE* f = std::fopen(path, "w");
    if (!f) return false;
    std::fprintf(f, "%%%%MatrixMarket matrix array real general\n%zu 1\n", x.size());
    for (double v : x)
        std::fprintf(f, "%.17g\n", v);
    return std::fclose(f) == 0;
}

bool writeSolution(const char* path, const std::vector<Complex>& x) {
    std::FILE* f = std::fopen(path, "w");
    if (!f) return false;
    std::fprintf(f, "%%%%MatrixMarket matrix array complex general\n%zu 1\n", x.size());
    for (const Complex& v : x)
        std::fprintf(f, "%.17g %.17g\n", v.real(), v.imag());
    return std::fclose(f) == 0;
}

template <class V>
bool readRhs(const char* path, int n, std::vector<V>& b) {
    std::ifstream in(path);
    if (!in) return false;
    std::vector<double> values;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '%') continue;
        std::istringstream s(line);
        for (double v; s >> v;)
            values.push_back(v);
    }
    const std::size_t words = std::is_same_v<V, double> ? 1 : 2;
    const std::size_t count = static_cast<std::size_t>(n) * words;
    // A Matrix Market array file starts with its sizes "n 1".
    if (values.size() == count + 2) values.erase(values.begin(), values.begin() + 2);
    if (values.size() != count) return false;
    b.resize(static_cast<std::size_t>(n));
    for (std::size_t i = 0; i < b.size(); ++i) {
        if constexpr (std::is_same_v<V, double>)
            b[i] = values[i];
        else
            b[i] = V(values[2 * i], values[2 * i + 1]);
    }
    return true;
}

const std::vector<double>& valuesOf(const skyrinse::mm::Csr& c, double) {
    return c.a;
}
const std::vector<Complex>& valuesOf(const skyrinse::mm::Csr& c, Complex) {
    return c.z;
}

// ||A x - b|| / ||b|| in double; symmetric types store one triangle, whose
// mirror is its conjugate for the Hermitian ones.
template <class V>
double residual(const skyrinse::mm::Csr& c, bool symmetric, bool hermitian, const std::vector<V>& x,
                const std::vector<V>& b) {
    const std::vector<V>& a = valuesOf(c, V());
    std::vector<V> r(b.size(), V(0));
    for (int i = 0; i < c.n; ++i)
        for (int k = c.ia[i] - 1; k < c.ia[i + 1] - 1; ++k) {
            const int j = c.ja[k] - 1;
            r[i] += a[k] * x[j];
            if (symmetric && j != i) {
                if constexpr (std::is_same_v<V, double>)
                    r[j] += a[k] * x[i];
                else
                    r[j] += (hermitian ? std::conj(a[k]) : a[k]) * x[i];
            }
        }
    double rr = 0, bb = 0;
    for (std::size_t i = 0; i < b.size(); ++i) {
        rr += std::norm(r[i] - b[i]);
        bb += std::norm(b[i]);
    }
    return std::sqrt(rr) / std::sqrt(bb > 0 ? bb : 1.0);
}

template <class V>
struct Outcome {
    int error = 0;
    const char* stage = "";
    double seconds[3] = {};
    std::vector<V> x;
    spds_solve_info info{};
};

// Phases 11, 22, 33 and -1 in the element type T, values and vectors of type V.
template <class T, class V>
Outcome<V> solve(const skyrinse::mm::Csr& c, int mtype, int* iparm, const std::vector<V>& b,
                 int msglvl) {
    const std::vector<V>& values = valuesOf(c, V());
    std::vector<T> a, rhs, x(b.size());
    for (const V& v : values)
        a.push_back(static_cast<T>(v));
    for (const V& v : b)
        rhs.push_back(static_cast<T>(v));
    void* pt[64] = {};
    int maxfct = 1, mnum = 1, nrhs = 1, n = c.n;
    Outcome<V> out;
    const int phases[3] = {11, 22, 33};
    const char* names[3] = {"analysis", "factorization", "solve"};
    for (int k = 0; k < 3 && out.error == 0; ++k) {
        int phase = phases[k];
        const double t0 = nrt_seconds();
        spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a.data(), c.ia.data(), c.ja.data(), nullptr,
             &nrhs, iparm, &msglvl, rhs.data(), x.data(), &out.error);
        out.seconds[k] = nrt_seconds() - t0;
        out.stage = names[k];
    }
    for (const T& v : x)
        out.x.push_back(static_cast<V>(v));
    spds_get_solve_info(pt, &out.info);
    int phase = -1, error = 0;
    spds(pt, &maxfct, &mnum, &mtype, &phase, &n, nullptr, nullptr, nullptr, nullptr, &nrhs, iparm,
         &msglvl, nullptr, nullptr, &error);
    return out;
}

struct Options {
    const char* path = nullptr;
    const char* rhsPath = nullptr;
    const char* outPath = nullptr;
    int mtype = 0;
    int ordering = 3;
    int refine = 2;
    bool single = false;
    bool verbose = false;
    double readTime = 0;
};

// Solves and prints; V is double for a real file, complex for a complex one.
template <class V>
int solveAndPrint(const skyrinse::mm::Csr& csr, bool hermitian, Options o) {
    const int mtype = o.mtype;
    const double t0 = nrt_seconds();
    std::vector<V> b(static_cast<std::size_t>(csr.n), V(1.0));
    if (o.rhsPath && !readRhs(o.rhsPath, csr.n, b)) {
        std::fprintf(stderr, "spds-solve: %s: expected %d numbers%s\n", o.rhsPath, csr.n,
                     std::is_same_v<V, double> ? "" : " (pairs)");
        return kExitFile;
    }
    const double readTime = o.readTime + nrt_seconds() - t0;

    const bool symmetric = mtype == 2 || mtype == -2 || mtype == 4 || mtype == -4 || mtype == 6;
    const bool definite = mtype == 2 || mtype == 4;
    int iparm[64] = {};
    iparm[0] = 1;                  // take the values below, not the defaults
    iparm[1] = o.ordering;         // 0, 1 minimum degree; 2, 3 nested dissection
    iparm[7] = o.refine;           // refinement steps asked (negative: wide iterate)
    iparm[9] = symmetric ? 8 : 13; // pivots below 1e-8 / 1e-13 (at least the
                                   // square root of the roundoff) are perturbed
    iparm[10] = definite ? 0 : 1;  // scaling and matching: large entries near
    iparm[12] = definite ? 0 : 1;  // the diagonal, where pivoting can reach them
    iparm[17] = -1;                // report the entries of the factors
    iparm[20] = 1;                 // Bunch-Kaufman pivots (mtype -2, -4, 6)
    iparm[27] = o.single ? 1 : 0;
    const int msglvl = o.verbose ? 1 : 0;
    using Single = std::conditional_t<std::is_same_v<V, double>, float, std::complex<float>>;
    const Outcome<V> r = o.single ? solve<Single>(csr, mtype, iparm, b, msglvl)
                                  : solve<V>(csr, mtype, iparm, b, msglvl);

    std::printf("matrix        %s (mtype %d, %s precision)\n", o.path, mtype,
                o.single ? "single" : "double");
    std::printf("n             %d\n", csr.n);
    std::printf("nnz           %d\n", csr.ia[static_cast<std::size_t>(csr.n)] - 1);
    std::printf("right side    %s\n", o.rhsPath ? o.rhsPath : "ones");
    if (r.error != 0) {
        std::printf("error         %d in the %s (%s), iparm[29] %d\n", r.error, r.stage,
                    spds_error_text(r.error), iparm[29]);
        if (r.info.backward_error >= 0)
            std::printf("backward err  %.3e (not trusted)\n", r.info.backward_error);
        return kExitSolver;
    }
    std::printf("threads       %d\n", iparm[2]);
    if (o.verbose) {
        char why[256];
        const int granted = nrt_explain_threads(0, why, sizeof why);
        std::printf("granted       %d thread(s): %s\n", granted, why);
    }
    std::printf("nnz(L+U)      %d\n", iparm[17]);
    std::printf("inertia       %d positive, %d negative\n", iparm[21], iparm[22]);
    std::printf("perturbed     %d pivots\n", iparm[13]);
    std::printf("refinement    %d steps\n", iparm[6]);
    std::printf("residual      %.3e (||Ax-b|| / ||b||)\n",
                residual(csr, symmetric, hermitian, r.x, b));
    std::printf("backward err  %.3e (|b-Ax| / (|A||x|+|b|), infinity norms)\n",
                r.info.backward_error);
    if (o.verbose && o.refine < 0)
        std::printf("wide iterate  %.3e (backward error before rounding to %s)\n",
                    r.info.wide_backward_error, o.single ? "float" : "double");
    std::printf("memory        peak %d KB, kept %d KB, factorization %d KB\n", iparm[14], iparm[15],
                iparm[16]);
    std::printf("time read     %.3f s\n", readTime);
    std::printf("time analysis %.3f s\n", r.seconds[0]);
    std::printf("time factor   %.3f s\n", r.seconds[1]);
    std::printf("time solve    %.3f s\n", r.seconds[2]);
    if (o.outPath && !writeSolution(o.outPath, r.x)) {
        std::fprintf(stderr, "spds-solve: cannot write %s\n", o.outPath);
        return kExitFile;
    }
    return kExitSolved;
}

int run(int argc, char** argv) {
    Options o;
    int threads = 0;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) return usage(stdout);
        if (!std::strcmp(argv[i], "--mtype") && hasValue)
            o.mtype = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--ordering") && hasValue)
            o.ordering = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--threads") && hasValue)
            threads = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--refine") && hasValue)
            o.refine = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--rhs") && hasValue)
            o.rhsPath = argv[++i];
        else if (!std::strcmp(argv[i], "--out") && hasValue)
            o.outPath = argv[++i];
        else if (!std::strcmp(argv[i], "--single"))
            o.single = true;
        else if (!std::strcmp(argv[i], "--verbose"))
            o.verbose = true;
        else if (argv[i][0] != '-' && !o.path)
            o.path = argv[i];
        else
            return usage();
    }
    if (!o.path) return usage();
    if (threads > 0) nrt_set_num_threads(threads);

    skyrinse::mm::Triplets triplets;
    std::string message;
    const double t0 = nrt_seconds();
    if (!skyrinse::mm::read(o.path, triplets, message)) {
        std::fprintf(stderr, "spds-solve: %s\n", message.c_str());
        return kExitFile;
    }
    if (o.mtype == 0) {
        if (triplets.complex)
            o.mtype = triplets.hermitian ? -4 : triplets.symmetric ? 6 : 13;
        else
            o.mtype = triplets.symmetric ? -2 : 11;
    }
    const int m = o.mtype;
    const bool complexType = m == 3 || m == 4 || m == -4 || m == 6 || m == 13;
    if (complexType != triplets.complex) {
        std::fprintf(stderr, "spds-solve: mtype %d takes %s values; %s holds %s ones\n", m,
                     complexType ? "complex" : "real", o.path,
                     triplets.complex ? "complex" : "real");
        return kExitUsage;
    }
    const skyrinse::mm::Csr csr = skyrinse::mm::toCsr(triplets, o.mtype);
    o.readTime = nrt_seconds() - t0;
    return triplets.complex ? solveAndPrint<Complex>(csr, triplets.hermitian, o)
                            : solveAndPrint<double>(csr, false, o);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "spds-solve: not enough memory for this matrix\n");
        return kExitFile;
    }
}
