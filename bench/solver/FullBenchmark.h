// The full solver benchmark of bench_solver (see bench_solver.cpp), and the
// systems it is run on.
#pragma once

#include "Peers.h"

#include <string>

// The photo tool's parameters (mtype -2, nested dissection into domains,
// matching and symmetric scaling, Bunch-Kaufman pivots, two refinement
// steps), asking for the factor's entries; single or double precision.
void photoToolParameters(int* iparm, bool single);

int fullBenchmark(int argc, char** argv);
// Writes the matting Laplacian of a photograph as a Matrix Market file.
int writePhotoSystem(const char* photo, const char* file);
// The thread scaling of the factorization and the solve (ParallelBenchmark.cpp).
int parallelBenchmark(int argc, char** argv);
// bench_solver --complex [--threads N] [--reps R]: complex Helmholtz-like
// systems against MUMPS's complex solver.
int complexBenchmark(int argc, char** argv);
// The numeric factorization alone, wall and processor time (KernelBenchmark.cpp).
int kernelBenchmark(int argc, char** argv);
// The kernel benchmark on two threads against each OpenBLAS build installed.
int blasBuildsBenchmark(int argc, char** argv);
// bench_solver --ooc [--reps R] [--dir FOLDER] [--quick] [--system S]: out of core against
// in core (OutOfCoreBenchmark.cpp).
int outOfCoreBenchmark(int argc, char** argv);

namespace bench {
// The matting system the photo tool solves for a photograph.
Problem photoProblem(const std::string& path);
Problem laplacian2d(int w, int h);
Problem laplacian3d(int k);
// [K B^T; B 0] with a 2D Laplacian K on w x h and `constraints` rows of B.
Problem saddlePoint(int w, int h, int constraints);
// A path inside the source tree.
std::string sourceFile(const char* relative);
} // namespace bench
