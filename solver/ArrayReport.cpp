#include "ArrayReport.h"

#include <cstdio>

namespace skyrinse::spds {

void printIntArray(const char* label, const int* values, std::int64_t count) {
    std::printf("%s\n", label);
    for (std::int64_t k = 0; k < count; ++k)
        std::printf("%s%d", k % 10 == 0 ? (k ? "\n " : " ") : " ", values[k]);
    std::printf("\n");
    std::fflush(stdout);
}

void reportOrdering(const OrderingResult& ord, int n) {
    if (!ord.xadj.empty()) {
        printIntArray("xadj", ord.xadj.data(), static_cast<std::int64_t>(n) + 1);
        printIntArray("adjncy", ord.adjncy.data(), ord.xadj[n] - 1);
    }
    printIntArray("invp after sssord", ord.invp.data(), n);
    printIntArray("perm after sssord", ord.perm.data(), n);
}

void reportSymbolic(const OrderingResult& ord, const SymbolicResult& sym, int n) {
    printIntArray("invp after sfinit", ord.invp.data(), n);
    printIntArray("perm after sfinit", ord.perm.data(), n);
    printIntArray("index pointer xlindx", sym.xlindx.data(), sym.nsuper + 1LL);
    printIntArray("index pointer xlnz", sym.xlnz.data(), static_cast<std::int64_t>(n) + 1);
    printIntArray("index pointer xunz", sym.xunz.data(), static_cast<std::int64_t>(n) + 1);
    printIntArray("index array lindx", sym.lindx.data(), sym.lindxSize);
}

} // namespace skyrinse::spds
