// The load path that the libFuzzer target drives, shared with the corpus
// test that replays its finds in every build.
#pragma once

#include <cstddef>
#include <cstdint>

namespace iflfuzz {

// Decodes `data` from memory as IFL does a file (header first, then pixels
// and metadata) and reads every pixel back. Returns the IFL code.
int loadInput(const std::uint8_t* data, std::size_t size);

} // namespace iflfuzz
