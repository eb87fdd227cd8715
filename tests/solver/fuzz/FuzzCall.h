// One fuzz input: a short sequence of spds calls on one handle, built from
// bytes, with arrays as long as the arguments claim (that much a caller
// guarantees) but with contents as broken as the bytes make them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace spdsfuzz {

// Runs the calls and releases the handle; returns the number of calls made,
// or -1 when the release left words of the handle set. Any crash, hang or
// sanitizer report is a defect of the solver.
int runInput(const std::uint8_t* data, std::size_t size);

} // namespace spdsfuzz
