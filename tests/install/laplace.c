/* The 5-point Laplacian of an 8 x 8 grid solved through the installed SPDS:
 * the smallest program a C project builds against the library. Prints the
 * solution, one value a line, after checking its residual. */
#include <math.h>
#include <nrt.h>
#include <spds.h>
#include <stdio.h>

enum { M = 8, N = M * M };

int main(void) {
    /* Upper triangle in one-based compressed rows: 4 on the diagonal, -1 for
     * the right and the lower neighbour. */
    int ia[N + 1];
    int ja[3 * N];
    double a[3 * N];
    double b[N];
    double x[N];
    int k = 0;
    for (int i = 0; i < N; ++i) {
        ia[i] = k + 1;
        ja[k] = i + 1;
        a[k++] = 4.0;
        if ((i + 1) % M != 0) {
            ja[k] = i + 2;
            a[k++] = -1.0;
        }
        if (i + M < N) {
            ja[k] = i + M + 1;
            a[k++] = -1.0;
        }
        b[i] = 1.0;
    }
    ia[N] = k + 1;

    void* pt[64] = {0};
    int iparm[64] = {0}; /* iparm[0] = 0: the defaults */
    int perm[N];
    int maxfct = 1, mnum = 1, mtype = 2, phase = 13, n = N, nrhs = 1, msglvl = 0, error = 0;
    spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
         &error);
    const int solved = error;
    phase = -1;
    spds(pt, &maxfct, &mnum, &mtype, &phase, &n, a, ia, ja, perm, &nrhs, iparm, &msglvl, b, x,
         &error);
    if (solved != 0) {
        fprintf(stderr, "spds: error %d\n", solved);
        return 1;
    }

    double worst = 0.0;
    for (int i = 0; i < N; ++i) {
        double r = 4.0 * x[i] - 1.0;
        if (i % M != 0) r -= x[i - 1];
        if ((i + 1) % M != 0) r -= x[i + 1];
        if (i >= M) r -= x[i - M];
        if (i + M < N) r -= x[i + M];
        worst = fmax(worst, fabs(r));
    }
    if (worst > 1e-12) {
        fprintf(stderr, "residual %g\n", worst);
        return 1;
    }
    fprintf(stderr, "%d thread(s)\n", nrt_get_max_threads());
    for (int i = 0; i < N; ++i)
        printf("%.17g\n", x[i]);
    return 0;
}
