// Reading Matrix Market files into the one-based CSR arrays that spds takes.
//
// Accepts "matrix coordinate real|integer|pattern general|symmetric" and
// "matrix coordinate complex general|symmetric|hermitian". Entries are summed
// where the file repeats a position; every entry of a pattern file reads as
// 1.0.
#pragma once

#include <complex>
#include <string>
#include <vector>

namespace skyrinse::mm {

struct Triplets {
    int n = 0;
    bool symmetric = false; // the file stores one triangle
    bool complex = false;   // imag holds the imaginary parts
    bool hermitian = false; // one triangle, the other its conjugate
    std::vector<int> rows;  // one-based
    std::vector<int> cols;  // one-based
    std::vector<double> values;
    std::vector<double> imag;
};

// Reads the file; on failure returns false and sets `message`.
bool read(const std::string& path, Triplets& out, std::string& message);

// Writes a symmetric or general coordinate file (one-based entries as given).
bool write(const std::string& path, const Triplets& in, std::string& message);

struct Csr {
    int n = 0;
    std::vector<int> ia; // n+1, one-based
    std::vector<int> ja; // one-based, ascending in each row
    std::vector<double> a;
    std::vector<std::complex<double>> z; // the values of a complex file (a stays empty)
};

// The CSR that spds expects for mtype: the upper triangle with every diagonal
// entry present for symmetric types (|mtype| even), the full pattern otherwise.
// A Hermitian file's mirrored entries are conjugated.
Csr toCsr(const Triplets& t, int mtype);

} // namespace skyrinse::mm
