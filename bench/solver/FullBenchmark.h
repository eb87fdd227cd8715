// The full solver benchmark of bench_solver (see bench_solver.cpp).
#pragma once

int fullBenchmark(int argc, char** argv);
// Writes the matting Laplacian of a photograph as a Matrix Market file.
int writePhotoSystem(const char* photo, const char* file);
