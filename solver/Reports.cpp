// The error and statistics reports; the contract is in Reports.h.
#include "Reports.h"

#include "NumericFactorization.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace skyrinse::spds {
namespace {

// Report ids that map to one catalogue row each; ranges follow below.
struct IdRow {
    int id;
    int number;
};
constexpr IdRow kSingleIds[] = {
    {-4, 883},  {-2, 881},  {1, 885},   {2, 880},   {3, 886},   {4, 882},   {6, 884},   {11, 887},
    {13, 888},  {101, 899}, {102, 898}, {103, 913}, {104, 897}, {134, 944}, {136, 946}, {138, 948},
    {140, 952}, {141, 953}, {215, 924}, {240, 949}, {241, 950}, {242, 951}, {243, 992}, {244, 993},
    {245, 994}, {246, 995}, {247, 996}, {310, 807}, {401, 809}, {402, 810}, {440, 843}, {441, 844},
};
struct IdRange {
    int first;
    int last;
    int number;
};
constexpr IdRange kRangeIds[] = {
    {105, 114, 914}, {116, 133, 925}, {405, 430, 811}, {433, 438, 837},
    {443, 452, 845}, {501, 512, 855}, {601, 613, 867},
};

// Status of the call as the driver classifies it.
constexpr int kParameters = -1;
constexpr int kMemory = -2;
constexpr int kReordering = -3;
constexpr int kNumeric = -4;
constexpr int kInternal = -5;
constexpr int kMatching = -6;
constexpr int kOverflow = -8;
constexpr int kOocOpen = -10;

// Refinement that could not reach the working accuracy (the numeric
// factorization's internal codes).
constexpr int kRefinementStalled = -111;
constexpr int kRefinementContracting = -112;

int clampInt(std::int64_t v) {
    return v > 2147483647 ? 2147483647 : v < -2147483647 ? -2147483647 : static_cast<int>(v);
}

// Argument failures whose report ends with the four lines of the call's
// arguments, so that a reader can see which value the check refused.
bool printsArguments(int code) {
    return (code >= 1 && code <= 11) || code == 15;
}

void argumentFailure(const ReportCall& c, int code) {
    const Handle* h = c.handle;
    const int storedMaxfct = h ? h->maxfct : 0;
    const int storedMtype = h ? h->mtype : 0;
    const int storedN = h ? h->n : 0;
    const int storedNnz = h ? h->nnz + 1 : 0;
    const int* iparm = c.iparm;
    bool known = true;
    switch (code) {
    case 100000:
        spds_report(405);
        break;
    case 10000:
        spds_report(406);
        break;
    case 1000:
        spds_report(407);
        spds_report(408, c.phase);
        break;
    case 100:
        spds_report(409, c.mnum);
        break;
    case 999:
        spds_report(410, c.phase);
        break;
    case 1:
        spds_report(411, c.phase);
        break;
    case 2:
        spds_report(412, c.maxfct, storedMaxfct);
        break;
    case 3:
        spds_report(413, c.maxfct, c.mnum);
        break;
    case 4:
        spds_report(414, c.mnum, c.phase);
        break;
    case 5:
        spds_report(415, c.mtype, storedMtype);
        break;
    case 15:
        spds_report(416, c.mtype);
        break;
    case 6:
        spds_report(417, c.n, storedN);
        break;
    case 7:
        spds_report(418, c.n);
        break;
    case 8:
        spds_report(419, c.iaLast, storedNnz);
        break;
    case 9:
        spds_report(420, c.nrhs, c.phase);
        break;
    case 10:
        spds_report(421, iparm[5]);
        break;
    case 11:
        spds_report(422, iparm[1]);
        break;
    case 12:
        spds_report(423, c.threads);
        break;
    case 13:
        spds_report(424, iparm[2], c.threads);
        break;
    case 20:
        spds_report(429, c.phase);
        break;
    default:
        if (code >= 21 && code <= 30) {
            spds_report(code + 428, iparm[30], iparm[31], iparm[32]);
            return;
        }
        if (code < 0) {
            spds_report(430, -code);
            return;
        }
        known = false;
        spds_report(411, c.phase);
        break;
    }
    if (printsArguments(code) || !known) {
        spds_report(425, code, c.maxfct);
        spds_report(426, c.mnum, c.mtype);
        spds_report(427, c.phase, c.n);
        spds_report(428, c.iaLast > 0 ? c.iaLast - 1 : 0, c.nrhs);
    }
}

void numericFailure(const ReportCall& c) {
    const int code = c.iparm[29];
    if (code == kRefinementContracting) {
        spds_report(437);
        spds_report(438);
        return;
    }
    if (code == kRefinementStalled) {
        spds_report(437);
        spds_report(440, std::abs(c.iparm[7]));
        return;
    }
    if (c.iparm[19] < 0 || code == -3) {
        spds_report(441, c.iparm[19]);
    } else if (code == -2) {
        spds_report(443, 0);
    } else {
        spds_report((c.mtype == 2 || c.mtype == 4) ? 444 : 445);
    }
}

std::string stageWord(int stage) {
    return (stage >= 1 && stage <= 4) ? spds_text(889 + stage, 0) : std::string();
}

// "name value" of one timer line.
void timeLine(int k, double seconds, const int* iparm, double sum) {
    std::string line = spds_text(899 + k, 0);
    if (k == 8)
        line += spds_text(910, 2, seconds, iparm[19]);
    else if (k == 10)
        line += spds_text(911, 2, seconds, seconds - sum);
    else
        line += spds_text(912, 1, seconds);
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
}

// Timer slot of each line k = 1..10 of the times block.
constexpr int kTimerOfLine[10] = {kTimeGraph,      kTimeOrdering, kTimeSymbolic, kTimeUpdateLists,
                                  kTimeMatrixMap,  kTimeNumeric,  kTimeSolve,    kTimeIterative,
                                  kTimeAllocation, kTimeTotal};

// Share of `part` in `whole`, in whole percent.
int percentOf(double part, double whole) {
    return whole > 0 ? static_cast<int>(100.0 * part / whole) : 0;
}

double megabytes(std::int64_t bytes) {
    return static_cast<double>(bytes) / (1024.0 * 1024.0);
}

// The time the files took, beside the stage times, and then the same as
// shares of each stage and the bytes moved.
void outOfCoreLines(const Handle& h) {
    const OocCounters& io = h.ooc.io;
    spds_message(0, 779, 1, io.writeSeconds);
    spds_message(0, 780, 1, io.factorReadSeconds);
    spds_message(0, 781, 1, io.solveReadSeconds);
    spds_message(0, 0, 0);
    const double factor = h.timers[kTimeNumeric];
    const double solve = h.timers[kTimeSolve];
    const double total = h.timers[kTimeTotal];
    const int write = percentOf(io.writeSeconds, factor);
    const int factorRead = percentOf(io.factorReadSeconds, factor);
    const int solveRead = percentOf(io.solveReadSeconds, solve);
    const int totalRead = percentOf(io.factorReadSeconds + io.solveReadSeconds, total);
    const int totalWrite = percentOf(io.writeSeconds, total);
    spds_message(0, 782, 0);
    spds_message(0, 783, 0);
    spds_message(0, 784, 0);
    spds_message(0, 785, 1, write);
    spds_message(0, 786, 1, factorRead);
    spds_message(0, 787, 1, 100 - write - factorRead);
    spds_message(0, 791, 0);
    spds_message(0, 786, 1, solveRead);
    spds_message(0, 792, 1, 100 - solveRead);
    spds_message(0, 794, 0);
    spds_message(0, 786, 1, totalRead);
    spds_message(0, 795, 1, 100 - totalRead - totalWrite);
    spds_message(0, 797, 0);
    spds_message(0, 798, 0);
    spds_message(0, 799, 1, megabytes(io.bytesWritten));
    spds_message(0, 800, 1, megabytes(io.factorBytesRead));
    spds_message(0, 801, 0);
    spds_message(0, 800, 1, megabytes(io.solveBytesRead));
    spds_message(0, 802, 0);
    spds_message(0, 803, 1, megabytes(io.bytesWritten + io.factorBytesRead + io.solveBytesRead));
    spds_message(0, 782, 0);
    spds_message(0, 0, 0);
}

} // namespace

int reportNumber(int id) {
    for (const IdRow& r : kSingleIds)
        if (r.id == id) return r.number;
    for (const IdRange& r : kRangeIds)
        if (id >= r.first && id <= r.last) return r.number + (id - r.first);
    return -1;
}

void summaryHead(int first, int last) {
    if (last < 0)
        std::printf("%s%s%s\n", spds_text(889, 0).c_str(), stageWord(first).c_str(),
                    spds_text(895, 0).c_str());
    else
        std::printf("%s%s%s%s%s\n", spds_text(889, 0).c_str(), stageWord(first).c_str(),
                    spds_text(894, 0).c_str(), stageWord(last).c_str(), spds_text(895, 0).c_str());
    spds_message(0, 896, 0);
    spds_message(0, 0, 0);
}

int spds_error_report(const ReportCall& c) {
    int status = c.status;
    if (status >= 0) return status;
    if (c.handle && c.handle->initState < 0) {
        spds_report(401);
        spds_report(402, c.phase);
        return status;
    }
    const bool inputMatrix = status == kParameters && c.internal >= 21 && c.internal <= 30;
    // Stages that fail with a status of their own keep it in iparm[29].
    const bool stageStatus = status == kNumeric || status == kReordering || status == kOverflow;
    spds_report(inputMatrix ? 512 : 500 - status, stageStatus ? c.iparm[29] : c.internal);
    switch (status) {
    case kParameters:
        argumentFailure(c, c.internal);
        if (c.internal < 0) status = -7;
        break;
    case kMemory: {
        const Handle* h = c.handle;
        const std::int64_t failed = h ? h->failedBytes : 0;
        spds_report(600 + c.internal / -100, clampInt(failed));
        const std::int64_t wantedKb = (h ? h->memory.currentKb() : 0) + failed / 1024 + 1;
        spds_report(433, clampInt(wantedKb));
        spds_report(434, c.iparm[14], c.iparm[15]);
        spds_report(435, c.iparm[16]);
        break;
    }
    case kReordering:
    case kOverflow:
        spds_report(436);
        break;
    case kNumeric:
        numericFailure(c);
        break;
    case kInternal:
    case kOocOpen:
        spds_report(446);
        break;
    case kMatching:
        spds_report(447, -c.internal, c.n);
        spds_report(448);
        break;
    default:
        break;
    }
    return status;
}

void spds_statistics(const ReportCall& c, Handle* h, double callSeconds) {
    if (c.phase <= 0) {
        summaryHead(4, -1);
        if (c.phase == 0)
            spds_report(140, c.mnum);
        else
            spds_report(141, c.freedFactors);
        spds_message(0, 0, 0);
        return;
    }
    if (!h) return;
    h->timers[kTimeTotal] += callSeconds;
    const int stagePhase = (c.phase >= 331 && c.phase <= 333) ? 33 : c.phase;
    summaryHead(stagePhase / 10, stagePhase % 10);
    spds_report(c.mtype);
    spds_message(0, 0, 0);

    spds_report(101);
    spds_report(102);
    double sum = 0.0;
    for (int k = 1; k <= 10; ++k) {
        const int slot = kTimerOfLine[k - 1];
        const double seconds = h->timers[slot];
        if (k == 10) {
            timeLine(k, seconds, c.iparm, sum);
        } else if (seconds != c.timersAtEntry[slot]) {
            timeLine(k, seconds, c.iparm, sum);
            sum += seconds;
        }
    }
    spds_message(0, 0, 0);
    if (h->ooc.active) outOfCoreLines(*h);

    // A handle without an analysis has no factor to describe; its figures
    // would all be zeros and leftovers.
    if (!h->hasAnalysis) return;
    const SymbolicResult& s = h->symbolic;
    spds_report(103);
    spds_report(104);
    spds_report(105, c.threads);
    if (h->iterativeControl > 0)
        spds_report(106);
    else
        spds_report(h->singleThread ? 108 : 107);
    spds_report(h->transpose != 0 ? 110 : 109);
    spds_report(112, h->n);
    spds_report(114, h->nnz);
    spds_report(215, h->n > 0 ? 100.0 * h->nnz / h->n / h->n : 0.0);
    spds_report(117, c.nrhs);
    spds_message(0, 0, 0);

    spds_report(118);
    if (h->ordering == 0) {
        spds_report(119);
        spds_report(120);
    }
    spds_report(122, h->panelWidth);
    spds_report(124, h->partitions);
    if (h->userPermutation <= 0) {
        if (h->ordering == 1) {
            spds_report(125);
            spds_report(126);
        } else if (h->ordering == 2) {
            spds_report(128);
        }
    } else {
        spds_report(129);
    }
    const std::int64_t nnzL = s.lnzSize;
    const std::int64_t nnzU = h->symmetricStorage ? 0 : s.unzSize;
    spds_report(131, s.nsuper);
    spds_report(133, s.largestSupernode);
    spds_report(134, clampInt(nnzL));
    spds_report(136, clampInt(nnzU));
    spds_report(138, clampInt(nnzL + nnzU));
    spds_report(243, c.iparm[14]);
    spds_report(244, c.iparm[15]);
    spds_report(245, c.iparm[16]);
    if (stagePhase > 11) spds_report(246, c.iparm[13]);
    if (stagePhase % 10 == 3) spds_report(247, c.iparm[6]);
    if (stagePhase > 11) {
        const double gflop =
            factorizationOperations(s, h->n, !h->symmetricStorage) / 1000.0; // millions -> 10^9
        spds_report(240, gflop);
        if (h->timers[kTimeNumeric] > 0.0) spds_report(241, gflop / h->timers[kTimeNumeric]);
    }
    spds_message(0, 0, 0);
}

void diagonalStatistics(int phase) {
    const int stagePhase = (phase >= 331 && phase <= 333) ? 33 : phase;
    const int last = stagePhase >= 10 ? stagePhase % 10 : stagePhase;
    spds_message(0, 991, 1, stageWord(last).c_str());
}

} // namespace skyrinse::spds
