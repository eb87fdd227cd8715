// Arrays of the analysis printed with their labels at message level 2 and
// above ("xadj", "perm after sssord", "index pointer xlnz", ...): one label
// line, then the values, ten to a line.
#pragma once

#include "Handle.h"

namespace skyrinse::spds {

void printIntArray(const char* label, const int* values, std::int64_t count);

// The arrays the ordering stage leaves, in the order it finishes them.
void reportOrdering(const OrderingResult& ord, int n);
// The arrays of sfinit and of the symbolic factorization.
void reportSymbolic(const OrderingResult& ord, const SymbolicResult& sym, int n);

} // namespace skyrinse::spds
