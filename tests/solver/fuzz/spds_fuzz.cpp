// libFuzzer entry for the spds entry point (build with -DSPDS_FUZZ=ON and
// clang). Inputs that crash go to tests/solver/corpus/, where
// corpus_test replays them.
#include "FuzzCall.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    spdsfuzz::runInput(data, size);
    return 0;
}
