// spds-solve: analyse a sparse system from a Matrix Market file with SPDS.
//
//   spds-solve [--mtype T] [--ordering 0..3] [--threads N] [--single] FILE.mtx
//
// The whole use of the solver in one place: build the one-based CSR arrays,
// call spds with phase 11 (ordering and symbolic factorization), read back
// what the analysis found, and release the handle with phase -1.
#include "MatrixMarket.h"

#include "runtime/nrt.h"
#include "spds.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

int usage() {
    std::fprintf(stderr, "usage: spds-solve [--mtype T] [--ordering 0..3] [--threads N] "
                         "[--single] FILE.mtx\n");
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    int mtype = 0; // 0: 11 for a general file, -2 for a symmetric one
    int ordering = 3;
    int threads = 0;
    bool single = false;
    const char* path = nullptr;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (!std::strcmp(argv[i], "--mtype") && hasValue)
            mtype = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--ordering") && hasValue)
            ordering = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--threads") && hasValue)
            threads = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--single"))
            single = true;
        else if (argv[i][0] != '-' && !path)
            path = argv[i];
        else
            return usage();
    }
    if (!path) return usage();
    if (threads > 0) nrt_set_num_threads(threads);

    skyrinse::mm::Triplets triplets;
    std::string message;
    const double t0 = nrt_seconds();
    if (!skyrinse::mm::read(path, triplets, message)) {
        std::fprintf(stderr, "spds-solve: %s\n", message.c_str());
        return 1;
    }
    if (mtype == 0) mtype = triplets.symmetric ? -2 : 11;
    const skyrinse::mm::Csr csr = skyrinse::mm::toCsr(triplets, mtype);
    std::vector<float> values(csr.a.begin(), csr.a.end());
    const void* a = single ? static_cast<const void*>(values.data()) : csr.a.data();
    const double readTime = nrt_seconds() - t0;

    void* pt[64] = {};
    int iparm[64] = {};
    iparm[0] = 1;        // take the values below, not the defaults
    iparm[1] = ordering; // 0, 1 minimum degree; 2, 3 nested dissection
    iparm[17] = -1;      // report the non-zeros of the factors
    iparm[27] = single ? 1 : 0;
    int maxfct = 1, mnum = 1, nrhs = 1, msglvl = 0, error = 0;
    int phase = 11;
    std::vector<int> perm(static_cast<std::size_t>(csr.n));
    const double t1 = nrt_seconds();
    spds(pt, &maxfct, &mnum, &mtype, &phase, &csr.n, a, csr.ia.data(), csr.ja.data(), perm.data(),
         &nrhs, iparm, &msglvl, nullptr, nullptr, &error);
    const double analysisTime = nrt_seconds() - t1;

    std::printf("matrix        %s (mtype %d, %s precision)\n", path, mtype,
                single ? "single" : "double");
    std::printf("n             %d\n", csr.n);
    std::printf("nnz           %d\n", csr.ia[static_cast<std::size_t>(csr.n)] - 1);
    int status = 0;
    if (error != 0) {
        std::printf("error         %d (%s), iparm[29] %d\n", error, spds_error_text(error),
                    iparm[29]);
        status = 1;
    } else {
        spds_analysis_info info;
        spds_get_analysis_info(pt, &info);
        std::printf("threads       %d\n", info.threads);
        std::printf("domains       %d (of %d parts)\n", info.domains, info.partitions);
        std::printf("supernodes    %d\n", info.supernodes);
        std::printf("largest       %d columns (fundamental %d, panel cut %d)\n",
                    info.largest_supernode, info.largest_fundamental, info.panel_width);
        std::printf("nnz(L)        %lld (%lld by columns)\n", info.nnz_l, info.nnz_l_columns);
        if (info.nnz_u > 0) std::printf("nnz(U)        %lld\n", info.nnz_u);
        std::printf("iparm[17]     %d\n", iparm[17]);
        std::printf("memory        peak %d KB, kept %d KB, factorization %d KB\n", iparm[14],
                    iparm[15], iparm[16]);
        std::printf("time read     %.3f s\n", readTime);
        std::printf("time graph    %.3f s\n", info.time_graph);
        std::printf("time ordering %.3f s\n", info.time_ordering);
        std::printf("time sfinit   %.3f s\n", info.time_sfinit);
        std::printf("time symbolic %.3f s\n", info.time_symbolic);
        std::printf("time lists    %.3f s\n", info.time_update_lists);
        std::printf("time analysis %.3f s\n", analysisTime);
    }
    phase = -1;
    spds(pt, &maxfct, &mnum, &mtype, &phase, &csr.n, a, csr.ia.data(), csr.ja.data(), perm.data(),
         &nrhs, iparm, &msglvl, nullptr, nullptr, &error);
    return status;
}
