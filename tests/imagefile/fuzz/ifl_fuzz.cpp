// libFuzzer entry for IFL's load path from memory (configure with clang and
// -DIFL_FUZZ=ON). Seeds: the files ifl_corpus_test makes when IFL_FUZZ_SEEDS
// names a folder. Inputs that crash go to tests/imagefile/corpus/, where
// ifl_corpus_test replays them.
#include "IflFuzzLoad.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    iflfuzz::loadInput(data, size);
    return 0;
}
