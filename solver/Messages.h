// The message catalogue: every line the solver prints is a numbered printf
// format of one table, so that a report names its lines by number and a
// translated table could replace the words without touching the code.
//
// Row 0 is a line end; rows 772 to 996 are the solver's. The other numbers of
// the numerical library's 1080-row table are reserved and have no text here.
// There is no run-time catalogue loader on Linux: the built-in table is the
// only one (docs/spds.md says how a translation would come in).
//
// Formatting goes into a buffer of the size the line needs, so no argument
// can overflow it. Printing happens on the calling thread, outside parallel
// regions, and is followed by a flush so that reports interleave correctly
// with the caller's own output.
#pragma once

#include <string>

namespace skyrinse::spds {

inline constexpr int kCatalogueRows = 1080;

// The format of row `number`, or null for a reserved or out-of-range row.
const char* catalogueRow(int number);

// The text of row `number`; with `count` > 0 the arguments are formatted
// into it, with 0 the row is taken as it stands. Returns an empty string for
// a row without text.
std::string spds_text(int number, int count, ...);

// Prints the text of row `number` with a line end and flushes. Channels 0
// and 1 print alike. Row 0 prints an empty line.
void spds_message(int channel, int number, int count, ...);

} // namespace skyrinse::spds
