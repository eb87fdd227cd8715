#include "MatrixMarket.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <type_traits>

namespace skyrinse::mm {

bool read(const std::string& path, Triplets& out, std::string& message) {
    std::ifstream in(path);
    if (!in) {
        message = "cannot open " + path;
        return false;
    }
    std::string line;
    std::getline(in, line);
    std::string banner, object, format, field, symmetry;
    std::istringstream head(line);
    head >> banner >> object >> format >> field >> symmetry;
    for (std::string* s : {&object, &format, &field, &symmetry})
        std::transform(s->begin(), s->end(), s->begin(),
                       [](unsigned char c) { return std::tolower(c); });
    if (banner != "%%MatrixMarket" || object != "matrix" || format != "coordinate") {
        message = path + ": not a Matrix Market coordinate matrix";
        return false;
    }
    if (field != "real" && field != "integer" && field != "pattern" && field != "complex") {
        message =
            path + ": field '" + field + "' is not supported (real, integer, pattern, complex)";
        return false;
    }
    const bool complex = field == "complex";
    if (symmetry != "general" && symmetry != "symmetric" && !(complex && symmetry == "hermitian")) {
        message = path + ": symmetry '" + symmetry + "' is not supported (general, symmetric" +
                  (complex ? ", hermitian)" : ")");
        return false;
    }
    while (std::getline(in, line))
        if (!line.empty() && line[0] != '%') break;
    long long rows = 0, cols = 0, entries = 0;
    if (std::sscanf(line.c_str(), "%lld %lld %lld", &rows, &cols, &entries) != 3 || rows != cols ||
        rows < 1 || rows > 2147483646 || entries < 0) {
        message = path + ": size line must give a square matrix";
        return false;
    }
    out = Triplets{};
    out.n = static_cast<int>(rows);
    out.symmetric = symmetry != "general";
    out.complex = complex;
    out.hermitian = symmetry == "hermitian";
    const bool pattern = field == "pattern";
    // The entries are read in one piece and parsed in place: a stream
    // extraction per number costs more than the whole analysis.
    const std::string body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // An entry takes four characters at least ("i j\n"); a size line that
    // promises more, or more equations than its entries can fill (half a
    // matrix stores at least half of them), describes no usable system and
    // would only run memory out.
    if (static_cast<unsigned long long>(entries) > body.size() / 4 + 1) {
        message = path + ": the size line announces " + std::to_string(entries) +
                  " entries, more than the file holds";
        return false;
    }
    if (rows > 2 * entries) {
        message = path + ": the size line announces " + std::to_string(rows) + " equations for " +
                  std::to_string(entries) + " entries: the matrix would be singular";
        return false;
    }
    const char* p = body.data();
    const char* const end = body.data() + body.size();
    auto skipSpace = [&] {
        while (p < end && std::isspace(static_cast<unsigned char>(*p)))
            ++p;
    };
    auto number = [&](auto& value) {
        skipSpace();
        const auto r = std::from_chars(p, end, value);
        if (r.ec != std::errc() ||
            (r.ptr < end && !std::isspace(static_cast<unsigned char>(*r.ptr))))
            return false;
        p = r.ptr;
        return true;
    };
    out.rows.reserve(static_cast<std::size_t>(entries));
    out.cols.reserve(static_cast<std::size_t>(entries));
    out.values.reserve(static_cast<std::size_t>(entries));
    if (complex) out.imag.reserve(static_cast<std::size_t>(entries));
    for (long long k = 0; k < entries; ++k) {
        long long i = 0, j = 0;
        double v = 1.0, w = 0.0;
        if (!number(i) || !number(j) || (!pattern && !number(v)) || (complex && !number(w))) {
            message = path + ": entry " + std::to_string(k + 1) + " is missing or malformed";
            return false;
        }
        if (i < 1 || i > rows || j < 1 || j > rows) {
            message = path + ": entry " + std::to_string(k + 1) + " lies outside the matrix";
            return false;
        }
        out.rows.push_back(static_cast<int>(i));
        out.cols.push_back(static_cast<int>(j));
        out.values.push_back(v);
        if (complex) out.imag.push_back(w);
    }
    return true;
}

bool write(const std::string& path, const Triplets& t, std::string& message) {
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (!f) {
        message = "cannot create " + path;
        return false;
    }
    std::fprintf(f, "%%%%MatrixMarket matrix coordinate real %s\n",
                 t.symmetric ? "symmetric" : "general");
    std::fprintf(f, "%d %d %zu\n", t.n, t.n, t.values.size());
    for (std::size_t k = 0; k < t.values.size(); ++k)
        std::fprintf(f, "%d %d %.17g\n", t.rows[k], t.cols[k], t.values[k]);
    const bool ok = std::fclose(f) == 0;
    if (!ok) message = "cannot write " + path;
    return ok;
}

namespace {

// The rows of the CSR in values of type V (double, or complex for a complex
// file); conj mirrors an entry of a Hermitian file.
template <class V>
void fill(const Triplets& t, int mtype, std::vector<int>& ia, std::vector<int>& ja,
          std::vector<V>& a) {
    const bool upper = (mtype < 0 ? -mtype : mtype) % 2 == 0;
    const int n = t.n;
    std::vector<std::vector<std::pair<int, V>>> rows(static_cast<std::size_t>(n));
    auto add = [&](int i, int j, V v) { rows[static_cast<std::size_t>(i - 1)].push_back({j, v}); };
    auto mirror = [&](V v) {
        if constexpr (std::is_same_v<V, double>)
            return v;
        else
            return t.hermitian ? std::conj(v) : v;
    };
    for (std::size_t k = 0; k < t.values.size(); ++k) {
        int i = t.rows[k], j = t.cols[k];
        V v;
        if constexpr (std::is_same_v<V, double>)
            v = t.values[k];
        else
            v = V(t.values[k], t.imag[k]);
        if (upper) {
            if (i > j) {
                std::swap(i, j);
                v = mirror(v);
            }
            add(i, j, v);
        } else {
            add(i, j, v);
            if (t.symmetric && i != j) add(j, i, mirror(v));
        }
    }
    ia.reserve(static_cast<std::size_t>(n) + 1);
    ia.push_back(1);
    for (int i = 1; i <= n; ++i) {
        auto& r = rows[static_cast<std::size_t>(i - 1)];
        // Symmetric factorizations pivot on the diagonal: it must be stored.
        if (upper) r.push_back({i, V(0)});
        std::sort(r.begin(), r.end(),
                  [](const auto& x, const auto& y) { return x.first < y.first; });
        for (std::size_t k = 0; k < r.size(); ++k) {
            if (!ja.empty() && static_cast<int>(ja.size()) >= ia.back() &&
                ja.back() == r[k].first) {
                a.back() += r[k].second;
                continue;
            }
            ja.push_back(r[k].first);
            a.push_back(r[k].second);
        }
        ia.push_back(static_cast<int>(ja.size()) + 1);
        r.clear();
        r.shrink_to_fit();
    }
}

} // namespace

Csr toCsr(const Triplets& t, int mtype) {
    Csr c;
    c.n = t.n;
    if (t.complex)
        fill(t, mtype, c.ia, c.ja, c.z);
    else
        fill(t, mtype, c.ia, c.ja, c.a);
    return c;
}

} // namespace skyrinse::mm
