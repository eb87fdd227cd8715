/* SPDS: sparse direct solver for large sparse linear systems A x = b.
 *
 * One entry, `spds`, does everything: analysis (fill-reducing ordering and
 * symbolic factorization), numeric factorization and solve, selected by
 * `phase`. All state lives behind the caller's handle `pt`, an array of 64
 * pointer-sized words that must be all zero before the first call and is
 * returned to that state by phase -1.
 *
 * Rules shared by every argument:
 *  - Every argument is passed by address, scalars included, so that the entry
 *    can be called from C, C++ and Fortran alike.
 *  - Matrices are in compressed sparse rows with one-based indices: row i
 *    (1..n) holds the entries ia[i-1] .. ia[i]-1 of `ja` (columns) and `a`
 *    (values). Symmetric types (mtype 2, -2, ...) store the upper triangle,
 *    diagonal included.
 *  - `a`, `b` and `x` hold float when iparm[27] = 1 at the analysis, double
 *    otherwise; the choice is kept by the handle for later phases.
 *  - The call never throws, never ends the process and never writes outside
 *    the arrays it was given; every outcome is the number left in `error`
 *    (0 success, negative failure, see docs/spds.md).
 *  - One handle is used by one thread at a time; distinct handles are
 *    independent.
 */
#ifndef SKYRINSE_SPDS_H
#define SKYRINSE_SPDS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Phases: 11 analysis, 12 analysis + factorization, 13 all three,
 * 22 factorization, 23 factorization + solve, 33 solve, 331..333 partial
 * solves, 0 release factor `mnum`, -1 release everything, -2 and -3 enquiries. */
void spds(void* pt[64], const int* maxfct, const int* mnum, const int* mtype, const int* phase,
          const int* n, const void* a, const int* ia, const int* ja, int* perm, const int* nrhs,
          int* iparm, const int* msglvl, void* b, void* x, int* error);

/* What the last analysis of a handle found, for tools and reports. Times are
 * seconds of the most recent analysis on the handle. */
typedef struct spds_analysis_info {
    int n;                   /* equations */
    int nnz;                 /* entries of the matrix as stored */
    int mtype;               /* matrix type of the analysis */
    int threads;             /* threads granted to the analysis */
    int partitions;          /* parts asked of the nested dissection */
    int domains;             /* leaf domains delivered by the ordering */
    int supernodes;          /* supernodes of the factor */
    int largest_supernode;   /* widest supernode, in columns */
    int largest_fundamental; /* widest chain of columns before the panel cut */
    int panel_width;         /* cut applied to supernodes (maxsup) */
    int largest_column;      /* tallest column of the factor */
    long long nnz_l;         /* entries of L, diagonal blocks included */
    long long nnz_u;         /* entries of U outside the diagonal blocks (0: symmetric) */
    long long nnz_l_columns; /* entries of L counted column by column, diagonal included */
    long long lindx_size;    /* row indices stored for the whole factor */
    int tmpsiz;              /* update buffer size, in elements */
    int memory_peak_kb;      /* iparm[14] */
    int memory_permanent_kb; /* iparm[15] */
    int memory_numeric_kb;   /* iparm[16] */
    double time_graph;       /* building the ordering graph */
    double time_ordering;    /* fill-reducing ordering */
    double time_sfinit;      /* elimination tree, column counts, supernodes */
    double time_symbolic;    /* row structure and layout of the factor */
    double time_update_lists;
    /* Added after the first release: last, so the fields before it keep
     * their offsets. */
    long long relaxed_zeros; /* explicit zeros stored because supernodes were merged */
} spds_analysis_info;

/* Fills `info` from the last analysis kept by the handle. Returns 0, or -1
 * when the handle holds no analysis (fresh, released, or failed). */
int spds_get_analysis_info(void* const pt[64], spds_analysis_info* info);

/* What the last solve of a handle measured. Every full solve is checked:
 * the normwise backward error |b - A x|_inf / (|A|_inf |x|_inf + |b|_inf)
 * is computed in double (whatever the precision of the factor) for the x
 * handed back; a call that cannot bring it to the tolerance of its precision
 * (1e-5 in single, 2^-43 = 1.1e-13 in double) fails with error -4 and
 * iparm[29] = -112. With iparm[7] < 0 the refinement keeps its iterate in a
 * wider type (double for a single-precision factor); its backward error,
 * which a caller holding double vectors could have, is reported beside that
 * of the rounded x. Partial and split solves are not measured (-1). */
typedef struct spds_solve_info {
    int refinement_steps;       /* iparm[6] */
    double backward_error;      /* of x as handed back; -1 when not measured */
    double wide_backward_error; /* of the wide iterate; equals backward_error for iparm[7] >= 0 */
} spds_solve_info;

/* Fills `info` from the last solve on the handle. Returns 0, or -1 when the
 * handle is fresh or released. */
int spds_get_solve_info(void* const pt[64], spds_solve_info* info);

/* Progress of the numeric factorization. The hook receives the thread (1),
 * the percentage done, a stage text and its length; a non-zero return
 * cancels the factorization (error -4 with iparm[29] = -1). One hook serves
 * the whole process; null removes it. */
typedef int (*spds_progress_fn)(const int* thread, const int* step, const char* stage, int length);
void spds_set_progress(spds_progress_fn hook);
spds_progress_fn spds_get_progress(void);

/* While `on` is non-zero, the nested dissections of analyses on the calling
   thread are kept, one graph at a time, for the next analysis of the same
   ordering graph, method and part count in the process, on any handle and
   thread: that analysis takes the order (the one it would find itself)
   instead of dissecting again, and takes it away. For a program that knows
   the structure of a coming system early: it analyses a stand-in of that
   structure ahead, on another thread. Off by default. */
void spds_share_orders(int on);

/* The words of an `error` value ("reordering_phase", ...); never null. */
const char* spds_error_text(int error);

#ifdef __cplusplus
}
#endif

#endif
