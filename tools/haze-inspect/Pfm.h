// Portable float map writer: the uncompressed float format that image viewers
// and numerical tools read without loss ("PF" colour, "Pf" grey; scale -1.0
// for little-endian samples; rows stored from the bottom up).
#pragma once

#include <QString>

#include <functional>

namespace pfm {

// Fills one row of `width` x channels floats for image row y (0 = top).
using RowSource = std::function<void(int y, float* row)>;

// Writes a grey (channels 1) or RGB (channels 3) map. Throws
// std::runtime_error with a message naming the file when it cannot be written.
void write(const QString& path, int width, int height, int channels, const RowSource& rows);

} // namespace pfm
