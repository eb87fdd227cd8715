// Lifecycle of the state behind a caller's handle.
//
// The Handle itself comes from the aligned allocator like every other block
// (failure code -100), its factor table right after it (-200). Destroying it
// runs the destructors of all Blocks, so phase -1 frees everything that any
// stage left behind, including after a failed allocation.
#include "Handle.h"

#include "runtime/nrt.h"

#include <algorithm>
#include <new>

namespace skyrinse::spds {

namespace {
constexpr int kIndexCode = -800; // the analysis's code for the row indices
} // namespace

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
    // The analysis outlives its factors: the last one that holds the row
    // indices gives them back. A failed read leaves it without them, and its
    // next factorization ends with the file error.
    if (hasAnalysis && row.outOfCore && symbolic.lindx.empty()) {
        int complete = 0;
        for (const FactorRow& r : factors)
            if (r.outOfCore && r.outOfCore->complete()) ++complete;
        if (complete == 1 && row.outOfCore->complete()) {
            try {
                restoreIndex();
            } catch (const OocFailure&) {
            } catch (const AllocationFailure&) {
            }
        }
    }
    row.values.reset();
    row.outOfCore.reset();
    row.state = kNotComputed;
    return held;
}

void Handle::restoreIndex() {
    if (!symbolic.lindx.empty()) return;
    const FactorRow* from = nullptr;
    for (const FactorRow& r : factors)
        if (r.outOfCore && r.outOfCore->complete()) from = &r;
    if (!from) throw OocFailure{kOocOpenFailure};
    IntBlock lindx(std::max<std::int64_t>(1, symbolic.lindxSize), kIndexCode, &memory, kNoFill);
    from->outOfCore->readIndex(lindx.data());
    symbolic.lindx = std::move(lindx);
}

int Handle::liveFactors() const {
    int count = 0;
    for (const FactorRow& row : factors)
        if (!row.values.empty()) ++count;
    return count;
}

void Handle::releaseNumericAndAnalysis() {
    // First, so that no factor gives its row indices back to an analysis
    // that goes.
    hasAnalysis = false;
    for (int i = 0; i < factors.size(); ++i)
        releaseFactor(i);
    ordering_ = OrderingResult{};
    symbolic = SymbolicResult{};
}

} // namespace skyrinse::spds
