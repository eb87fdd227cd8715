#include "FuzzCall.h"

#include "spds.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace spdsfuzz {

namespace {

class Bytes {
public:
    Bytes(const std::uint8_t* p, std::size_t n) : m_p(p), m_n(n) {}
    int next() { return m_i < m_n ? m_p[m_i++] : 0; }
    int wide() { return next() | (next() << 8); }
    bool more() const { return m_i < m_n; }

private:
    const std::uint8_t* m_p;
    std::size_t m_n;
    std::size_t m_i = 0;
};

constexpr int kMtypes[] = {11, -2, 2, 1, 3, 4, -4, 6, 13, -11, 7, 0, 12, -1};
constexpr int kPhases[] = {11, 11, 12, 13, 22, 23, 33, 331, 333, 334, 0, -1, -2, -3, 5, 34, -4, 21};
constexpr int kMaxEntries = 6000;

} // namespace

int runInput(const std::uint8_t* data, std::size_t size) {
    Bytes in(data, size);
    int n = 1 + in.next() % 48;
    const int mtype = kMtypes[in.next() % (sizeof(kMtypes) / sizeof(int))];
    const int flags = in.next();

    // ia: mostly increasing from 1, sometimes not.
    std::vector<int> ia(static_cast<std::size_t>(n) + 1);
    ia[0] = (flags & 1) ? in.next() % 4 : 1;
    for (int i = 1; i <= n; ++i) {
        const int step = in.next();
        ia[static_cast<std::size_t>(i)] =
            ia[static_cast<std::size_t>(i) - 1] + step % 7 - ((step & 0xe0) == 0xe0 ? 3 : 0);
    }
    // The caller's promise: ja and a hold ia[n] - 1 entries, for any n the
    // calls pass (n or n - 1), so they are sized for the largest ia.
    for (int& v : ia)
        v = std::min(v, kMaxEntries + 1);
    const int nnz = std::max(1, *std::max_element(ia.begin(), ia.end()) - 1);
    std::vector<int> ja(static_cast<std::size_t>(nnz));
    for (int& j : ja) {
        const int b = in.next();
        j = (b & 0xf0) == 0xf0 ? b % 5 - 2 + ((b & 1) ? n : 0) : 1 + b % n;
    }
    std::vector<double> a(static_cast<std::size_t>(std::max(1, 2 * nnz)));
    for (std::size_t k = 0; k < a.size(); ++k) {
        const int v = in.next();
        a[k] = v == 0xff   ? std::numeric_limits<double>::quiet_NaN()
               : v == 0xfe ? std::numeric_limits<double>::infinity()
                           : static_cast<double>(v % 9) - 2.0;
    }
    int nrhs = 1 + in.next() % 3;
    std::vector<double> b(static_cast<std::size_t>(2 * n * nrhs), 1.0);
    std::vector<double> x(b.size(), 0.0);
    std::vector<int> perm(static_cast<std::size_t>(n));
    for (int k = 0; k < n; ++k)
        perm[static_cast<std::size_t>(k)] = (flags & 2) ? 1 + in.next() % (n + 1) : n - k;

    void* pt[64] = {};
    int iparm[64] = {};
    iparm[0] = (flags & 4) ? 1 : 0;
    iparm[1] = (flags & 8) ? in.next() % 5 : 2 + (flags & 16 ? 1 : 0);
    iparm[4] = in.next() % 3;
    iparm[5] = (flags & 32) ? in.next() % 3 : 0;
    iparm[26] = (flags & 64) ? 1 : 0;
    iparm[27] = (flags & 128) ? 1 : 0;
    int maxfct = in.next() % 4, mnum = in.next() % 4, msglvl = 0, error = 0;
    int calls = 0;
    while (in.more() && calls < 6) {
        int phase = kPhases[in.next() % (sizeof(kPhases) / sizeof(int))];
        int callN = (in.next() & 0x1f) == 0 ? n - 1 : n;
        if (callN < 1) callN = n; // arrays are sized for n; a smaller n keeps reads in range
        int callType = (in.next() & 0x0f) == 0 ? kMtypes[in.next() % 4] : mtype;
        const int pick = in.next();
        int rhs = (pick & 0x0f) == 0 ? ((pick & 0x10) ? -nrhs : 0) : nrhs;
        // Sometimes one array for both, or a right-hand side that is not finite.
        double* xs = (pick & 0xe0) == 0xe0 ? b.data() : x.data();
        if ((pick & 0xe0) == 0xc0) b[0] = std::numeric_limits<double>::infinity();
        spds(pt, &maxfct, &mnum, &callType, &phase, &callN, a.data(), ia.data(), ja.data(),
             perm.data(), &rhs, iparm, &msglvl, b.data(), xs, &error);
        b[0] = 1.0;
        ++calls;
    }
    int phase = -1;
    int releaseType = mtype;
    spds(pt, &maxfct, &mnum, &releaseType, &phase, &n, a.data(), ia.data(), ja.data(), perm.data(),
         &nrhs, iparm, &msglvl, b.data(), x.data(), &error);
    // Phase -1 must leave the handle as it was before the first call.
    for (void* word : pt)
        if (word) return -1;
    return calls;
}

} // namespace spdsfuzz
