// The progress hook slot; see Progress.h.
#include "Progress.h"

#include "spds.h"

#include <atomic>

namespace skyrinse::spds {
namespace {
std::atomic<spds_progress_fn> hookSlot{nullptr};
} // namespace

int reportProgress(int thread, int step, const char* stage, int length) {
    const spds_progress_fn hook = hookSlot.load(std::memory_order_acquire);
    return hook ? hook(&thread, &step, stage, length) : 0;
}

} // namespace skyrinse::spds

extern "C" void spds_set_progress(spds_progress_fn hook) {
    skyrinse::spds::hookSlot.store(hook, std::memory_order_release);
}

extern "C" spds_progress_fn spds_get_progress(void) {
    return skyrinse::spds::hookSlot.load(std::memory_order_acquire);
}
