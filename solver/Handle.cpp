// Lifecycle of the state behind a caller's handle.
//
// The Handle itself comes from the aligned allocator like every other block
// (failure code -100), its factor table right after it (-200). Destroying it
// runs the destructors of all Blocks, so phase -1 frees everything that any
// stage left behind, including after a failed allocation.
#include "Handle.h"

#include "runtime/nrt.h"

#include <new>

namespace skyrinse::spds {

void* allocateAligned(std::size_t bytes) {
    return nrt_malloc(bytes, 128);
}
void releaseAligned(void* p) {
    nrt_free(p);
}

// Factor tables beyond this many rows are refused as an allocation failure
// rather than handed to the system: nobody keeps a million factorizations.
static constexpr int kMaxFactorRows = 1 << 20;

Handle* handleOf(void* const pt[64]) {
    return static_cast<Handle*>(pt[1]);
}

Handle* createHandle(void* pt[64], int maxfct) {
    void* raw = nrt_malloc(sizeof(Handle), 128);
    if (!raw) throw AllocationFailure{-100, static_cast<std::int64_t>(sizeof(Handle))};
    Handle* h = new (raw) Handle();
    h->memory.add(sizeof(Handle));
    pt[1] = h;
    pt[0] = nullptr;
    const int rows = maxfct > 0 ? maxfct : 0;
    if (rows > kMaxFactorRows) throw AllocationFailure{-200, static_cast<std::int64_t>(rows) * 24};
    h->factors = Block<FactorRow>(rows, -200, &h->memory);
    h->maxfct = maxfct;
    return h;
}

void destroyHandle(void* pt[64]) {
    Handle* h = handleOf(pt);
    if (h) {
        h->~Handle();
        nrt_free(h);
    }
    pt[0] = nullptr;
    pt[1] = nullptr;
}

bool Handle::releaseFactor(int index) {
    if (index < 0 || index >= factors.size()) return false;
    FactorRow& row = factors[index];
    const bool held = !row.values.empty();
    row.values.reset();
    row.outOfCore.reset();
    row.state = kNotComputed;
    return held;
}

int Handle::liveFactors() const {
    int count = 0;
    for (const FactorRow& row : factors)
        if (!row.values.empty()) ++count;
    return count;
}

void Handle::releaseNumericAndAnalysis() {
    for (int i = 0; i < factors.size(); ++i)
        releaseFactor(i);
    ordering_ = OrderingResult{};
    symbolic = SymbolicResult{};
    hasAnalysis = false;
}

} // namespace skyrinse::spds
