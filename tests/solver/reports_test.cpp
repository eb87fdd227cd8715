// The solver's words: catalogue lookup, the statistics report of each kind
// of call, and the error report of each class of failure.
#include "Messages.h"
#include "Reports.h"
#include "SpdsTest.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace spdstest;
using skyrinse::spds::spds_text;

bool has(const std::string& out, const std::string& line) {
    return out.find(line) != std::string::npos;
}

template <class F>
std::string captured(F&& f) {
    ::testing::internal::CaptureStdout();
    f();
    return ::testing::internal::GetCapturedStdout();
}

TEST(Catalogue, RowsFormatOnlyWithArguments) {
    EXPECT_EQ(spds_text(808, 1, 7), "SPDS Internationalization error! Message 7 is unknown");
    EXPECT_EQ(spds_text(0, 0), "\n");
    EXPECT_EQ(spds_text(783, 0), " ----------- Out of core time (in percent (%%)) --------------");
    EXPECT_EQ(spds_text(785, 1, 40), "      write to files : 40 %");
    EXPECT_EQ(spds_text(500, 0), "") << "reserved rows have no text";
    EXPECT_EQ(spds_text(1080, 0), "");
    // Long arguments are never cut: the buffer follows the line.
    const std::string path(2000, 'p');
    EXPECT_EQ(spds_text(961, 1, path.c_str()), "The file " + path + " was not opened");
    EXPECT_EQ(captured([] { skyrinse::spds::spds_report(999, 3); }),
              "SPDS Internationalization error! Message 999 is unknown\n");
    EXPECT_EQ(skyrinse::spds::reportNumber(133), 942);
    EXPECT_EQ(skyrinse::spds::reportNumber(613), 879);
}

TEST(Statistics, EachCallDescribesWhatItRan) {
    const System s = fromEntries("grid", 2, 64, gridEntries(8, 8, 1.0));
    Spds<double> h;
    h.msglvl = 1;
    std::vector<double> b(64, 1.0), x(64, 0.0);
    const std::string all = captured([&] { ASSERT_EQ(h.call(13, s, &b, &x), 0); });
    spds_analysis_info info{};
    ASSERT_EQ(spds_get_analysis_info(h.pt, &info), 0);
    for (const std::string& line :
         {std::string("Summary SPDS: ( reorder to solve )\n================\n"),
          std::string("SPDS: solving a symm. posit. def. system"), std::string("Times:\n======\n"),
          std::string("      Time reorder:"), std::string("      Time numfct :"),
          std::string("      Time solve  :"), std::string(" s total - sum: "),
          std::string("Statistics:\n===========\n"),
          std::string("#equations:                                     64\n"),
          std::string("< Preprocessing with state of the art partitioning metis>"),
          spds_text(944, 1, static_cast<int>(info.nnz_l)), spds_text(940, 1, info.supernodes),
          std::string("gflop   for the numerical factorization:")})
        EXPECT_TRUE(has(all, line)) << line << "\n" << all;

    // The figures the report prints are those the call returned.
    for (const std::string& line : {spds_text(992, 1, h.iparm[14]), spds_text(993, 1, h.iparm[15]),
                                    spds_text(994, 1, h.iparm[16]), spds_text(995, 1, h.iparm[13]),
                                    spds_text(996, 1, h.iparm[6]), spds_text(948, 1, h.iparm[17])})
        EXPECT_TRUE(has(all, line + "\n")) << line << "\n" << all;

    const std::string solve = captured([&] { ASSERT_EQ(h.call(33, s, &b, &x), 0); });
    EXPECT_TRUE(has(solve, "Summary SPDS: ( solve to solve )")) << solve;
    EXPECT_TRUE(has(solve, "      Time solve  :"));
    EXPECT_FALSE(has(solve, "Time reorder")) << "a solve does not repeat the analysis times";

    const std::string clean = captured([&] { h.release(); });
    EXPECT_EQ(clean, "Summary SPDS: ( clean )\n================\n\n"
                     " cleaned memory, deleted number of L&U-factorizations: 1\n\n");

    Spds<double> quiet;
    EXPECT_EQ(captured([&] { ASSERT_EQ(quiet.call(13, s, &b, &x), 0); }), "");
}

struct FailureRow {
    const char* what;
    int expected;
    std::vector<std::string> lines;
    std::function<int(Spds<double>&)> call;
};

TEST(ErrorReport, EachFailureNamesItsCause) {
    const System spd = fromEntries("grid", 2, 16, gridEntries(4, 4, 1.0));
    const System indefinite = fromEntries("shifted", 2, 16, gridEntries(4, 4, -20.0));
    std::vector<double> b(16, 1.0), x(16);
    const std::vector<FailureRow> rows = {
        {"unknown matrix type",
         -1,
         {"( sequence_ido,parameters) error_num= 15", "matrix_type_new 9 (out of bounds)",
          "*** Input parameters: inconsistent error= 15 max_fac_store_in: 1",
          "          ido_in           : 11 neqns_in         : 16"},
         [&](Spds<double>& h) {
             System bad = spd;
             bad.mtype = 9;
             return h.call(11, bad);
         }},
        {"solve before analysis",
         -1,
         {"( sequence_ido,parameters) error_num= 100000", "clean impossible (ido?)"},
         [&](Spds<double>& h) { return h.call(33, spd, &b, &x); }},
        {"columns out of order under the checker",
         -1,
         {"(incorrect input matrix  ) error_num= 24", "*** Input check: j="},
         [&](Spds<double>& h) {
             System bad = spd;
             std::swap(bad.ja[1], bad.ja[2]);
             h.iparm[26] = 1;
             return h.call(11, bad);
         }},
        {"no memory for the analysis",
         -2,
         {"(     insufficient_memory) error_num=", "*** Error in SPDS memory allocation:",
          "total memory wanted here:", "symbolic (max):"},
         [&](Spds<double>& h) {
             FailingHeap heap(3);
             return h.call(11, spd);
         }},
        {"cholesky of an indefinite matrix",
         -4,
         {"( numerical_factorization) error_num= ", "zero or negative pivot, A is not SPD"},
         [&](Spds<double>& h) { return h.call(12, indefinite); }},
    };
    for (const FailureRow& row : rows) {
        Spds<double> h;
        h.msglvl = 1;
        int error = 0;
        const std::string out = captured([&] { error = row.call(h); });
        EXPECT_EQ(error, row.expected) << row.what << "\n" << out;
        for (const std::string& line : row.lines)
            EXPECT_TRUE(has(out, line)) << row.what << ": " << line << "\n" << out;
        EXPECT_TRUE(has(out, "Summary SPDS:")) << "the statistics follow a failure too";
    }
}

} // namespace
