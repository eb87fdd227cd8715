// The built-in message table and its lookup; the contract is in Messages.h.
#include "Messages.h"

#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <vector>

namespace skyrinse::spds {
namespace {

constexpr int kFirstSolverRow = 772;

// Rows 772 onwards, in order. The spellings ("occured", "manualy") are the
// solver's words as callers and their log parsers know them.
constexpr const char* kSolverRows[] = {
    "*** SPDS error: unknown bit size of pint ***",                                  // 772
    "System error in SPDS",                                                          // 773
    "*** SPDS error: internal error",                                                // 774
    "Permutation contains %d out-of-range elements (first:  %d -> %ld)",             // 775
    "Permutation contains %d multiple element pairs (first: %d -> %ld)",             // 776
    "Permutation is inconsistent!",                                                  // 777
    "Trying to free NULL matrix.",                                                   // 778
    "      Factorization:\tTime for writing to files : %f",                          // 779
    "      Factorization:\tTime for reading from files : %f",                        // 780
    "      Solution:\tTime for reading from files : %f",                             // 781
    " ==============================================================",               // 782
    " ----------- Out of core time (in percent (%%)) --------------",                // 783
    "  Factorization step (100 (%%)):",                                              // 784
    "      write to files : %d %%",                                                  // 785
    "      read from files: %d %%",                                                  // 786
    "      factorization - write&read : %d %%",                                      // 787
    "      write to files : %lli %%",                                                // 788
    "      read from files: %lli %%",                                                // 789
    "      factorization - write&read : %lli %%",                                    // 790
    "  Solution step (100 (%%)):",                                                   // 791
    "      solve - write&read: %d %%",                                               // 792
    "      solve - write&read: %lli %%",                                             // 793
    "  Total time (100 (%%)):",                                                      // 794
    "      total - write&read: %d %%",                                               // 795
    "      total - write&read: %lli %%",                                             // 796
    " ----------- Out of core Mb --------------",                                    // 797
    "  Factorization step:",                                                         // 798
    "      write to files : %10.3f Mb ",                                             // 799
    "      read from files: %10.3f Mb ",                                             // 800
    "  Solution step:",                                                              // 801
    "  Total size of data transferred :",                                            // 802
    "      write&read        : %10.3f Mb ",                                          // 803
    " Percentage of computed non-zeros for LL^T factorization",                      // 804
    " Number of unknowns computed in forward solving step",                          // 805
    " Number of unknowns computed in backward solving step",                         // 806
    "Calling r8write without FORTRAN_IO, iparam(9)=0!!",                             // 807
    "SPDS Internationalization error! Message %d is unknown",                        // 808
    "*** Error in SPDS  (contradictory input, initialization failed)",               // 809
    "handle=0 ?? ido= %d",                                                           // 810
    "*** Error in SPDS: clean impossible (ido?)",                                    // 811
    "*** Error in SPDS: ido < -1",                                                   // 812
    "*** Error in SPDS: ido < 1 and initialization",                                 // 813
    " - contradiction (set ido >0 !) %d",                                            // 814
    "*** Error in SPDS: wrong matrix number, clean %d",                              // 815
    "*** Error in SPDS: only symb. fact. diagonal matrix case %d",                   // 816
    "*** Input check: ido_new %d (out of bounds)",                                   // 817
    "*** Input check: max_fac_store_new %d _old %d are incompatible",                // 818
    "*** Input check: max_fac_store_in %d matrix_number_in %d",                      // 819
    "*** Input check: matrix_number_new %d ido %d are incompatible",                 // 820
    "*** Input check: matrix_type_new %d _old %d are incompatible",                  // 821
    "*** Input check: matrix_type_new %d (out of bounds)",                           // 822
    "*** Input check: neqns_new %d _old %d are incompatible",                        // 823
    "*** Input check: neqns_new %d ",                                                // 824
    "*** Input check: ia(neqns+1)_new %d _old %d are incompatible",                  // 825
    "*** Input check: nb_new  %d  ido %d are incompatible",                          // 826
    "*** Input check: iparam(6) %d (out of bounds)",                                 // 827
    "*** Input check: preprocessing %d (out of bounds)",                             // 828
    "*** Input check: internal error, counted # threads %d",                         // 829
    "*** Input check: nproc %d <> counted # threads %d",                             // 830
    "*** Input parameters: inconsistent error= %d max_fac_store_in: %d",             // 831
    "          matrix_number_in : %d matrix_type_in   : %d",                         // 832
    "          ido_in           : %d neqns_in         : %d",                         // 833
    "          ia(neqns_in+1)-1 : %d nb_in            : %d",                         // 834
    "*** wrong control step parameter ido %d",                                       // 835
    "*** something wrong with diagonal matrix row %d",                               // 836
    "total memory wanted here: %d kbyte",                                            // 837
    "symbolic (max): %d symbolic (permanent): %d",                                   // 838
    " real(including 1 factor): %d",                                                 // 839
    "*** error SPDS: reordering, symb. factorization",                               // 840
    "*** error SPDS: iterative refinement",                                          // 841
    " contraction rate is greater than 0.9, interrupt",                              // 842
    " exceeds max. iteration number %d",                                             // 843
    "*** Error in SPDS: cgs error iparam(20) %d",                                    // 844
    "*** Error in SPDS: internal error, insufficient memory factorization",          // 845
    "*** Error in SPDS: zero or negative pivot, A is not SPD-matrix",                // 846
    "*** Error in SPDS: zero pivot",                                                 // 847
    "*** Error in SPDS: unclassified error",                                         // 848
    "*** Error in SPDS: preordering failed after %d neqns out of %d",                // 849
    "structure singular or input/parameter problem (matrixtype 11,13)",              // 850
    "*** Input check: i=%d, ia(i)=%d, ia(i+1)=%d are incompatible",                  // 851
    "*** Input check: i=%d, ja(i)=%d, neqns=%d are incompatible",                    // 852
    "*** Input check: i=%d, j=ia(i)=%d, ja(j)=%d are incompatible",                  // 853
    "*** Input check: j=%d, ja(j)=%d, ja(j+1)=%d are incompatible",                  // 854
    "*** Error in SPDS  ( sequence_ido,parameters) error_num= %d",                   // 855
    "*** Error in SPDS  (     insufficient_memory) error_num= %d",                   // 856
    "*** Error in SPDS  (        reordering_phase) error_num= %d",                   // 857
    "*** Error in SPDS  ( numerical_factorization) error_num= %d",                   // 858
    "*** Error in SPDS  ( internal_error,unclass.) error_num= %d",                   // 859
    "*** Error in SPDS  (prereordering_mtype11,13) error_num= %d",                   // 860
    "*** Error in SPDS  ( internal_error,unclass.) error_num= %d",                   // 861
    "*** Error in SPDS  (32-bit overflow problem.) error_num= %d",                   // 862
    "*** Error in SPDS  ( not enough mem. for OOC) error_num= %d",                   // 863
    "*** Error in SPDS  (      open OOC tmp files) error_num= %d",                   // 864
    "*** Error in SPDS  (read/write OOC data file) error_num= %d",                   // 865
    "*** Error in SPDS  (incorrect input matrix  ) error_num= %d",                   // 866
    "*** Error in SPDS memory allocation: BASIC   , size to allocate: %d bytes",     // 867
    "*** Error in SPDS memory allocation: FACT_ADR, size to allocate: %d bytes",     // 868
    "*** Error in SPDS memory allocation: LOC_INT1, size to allocate: %d bytes",     // 869
    "*** Error in SPDS memory allocation: STRUC_S0, size to allocate: %d bytes",     // 870
    "*** Error in SPDS memory allocation: WORK_I0 , size to allocate: %d bytes",     // 871
    "*** Error in SPDS memory allocation: STRUC_S1, size to allocate: %d bytes",     // 872
    "*** Error in SPDS memory allocation: STRUC_S2, size to allocate: %d bytes",     // 873
    "*** Error in SPDS memory allocation: STRUC_FI, size to allocate: %d bytes",     // 874
    "*** Error in SPDS memory allocation: LOC_INT2, size to allocate: %d bytes",     // 875
    "*** Error in SPDS memory allocation: UP_UPLEN, size to allocate: %d bytes",     // 876
    "*** Error in SPDS memory allocation: FACT_L&U, size to allocate: %d bytes",     // 877
    "*** Error in SPDS memory allocation: WORK_R0 , size to allocate: %d bytes",     // 878
    "*** Error in SPDS memory allocation: CGS_ARR , size to allocate: %d bytes",     // 879
    "================  SPDS: solving a symm. posit. def. system  ================",  // 880
    "================  SPDS: solving a  symmetric indef. system  ================",  // 881
    "================  SPDS: solving a   Herm. pos. def. system  ================",  // 882
    "================  SPDS: solving a  Hermitian indef. system  ================",  // 883
    "================  SPDS: solving a  complex symmetr. system  ================",  // 884
    "================  SPDS: solving a real struct. sym. system  ================",  // 885
    "================  SPDS: solving a  compl. str. sym. system  ================",  // 886
    "================  SPDS: solving a real nonsymmetric system  ================",  // 887
    "================  SPDS: solving a   complex nonsym. system  ================",  // 888
    "Summary SPDS: ( ",                                                              // 889
    "reorder",                                                                       // 890
    "factorize",                                                                     // 891
    "solve",                                                                         // 892
    "clean",                                                                         // 893
    " to ",                                                                          // 894
    " )",                                                                            // 895
    "================",                                                              // 896
    "===========",                                                                   // 897
    "======",                                                                        // 898
    "Times:",                                                                        // 899
    "      Time fulladj:",                                                           // 900
    "      Time reorder:",                                                           // 901
    "      Time symbfct:",                                                           // 902
    "      Time parlist:",                                                           // 903
    "      Time A to LU:",                                                           // 904
    "      Time numfct :",                                                           // 905
    "      Time solve  :",                                                           // 906
    "      Time cgs    :",                                                           // 907
    "      Time malloc :",                                                           // 908
    "      Time total  :",                                                           // 909
    " %f s cgx iterations %d",                                                       // 910
    " %f s total - sum: %f s",                                                       // 911
    " %f s",                                                                         // 912
    "Statistics:",                                                                   // 913
    " < Parallel Direct Factorization with #processors: >         %d",               // 914
    " < Hybrid Solver SPDS with CGS/CG Iteration >",                                 // 915
    " < Numerical Factorization with BLAS3 and O(n) synchronization >",              // 916
    " < Numerical Factorization with Level-3 BLAS performance >",                    // 917
    " < Linear system Ax = b> ",                                                     // 918
    " < Linear system Ax = b> <transpose> ",                                         // 919
    "             #equations:                                   %lli",               // 920
    "             #equations:                                     %d",               // 921
    "             #non-zeros in A:                              %lli",               // 922
    "             #non-zeros in A:                                %d",               // 923
    "             non-zeros in A (%%):                            %f",               // 924
    "             #right-hand sides:                            %lli",               // 925
    "             #right-hand sides:                              %d",               // 926
    " < Factors L and U > ",                                                         // 927
    "< Preprocessing with multiple minimum degree, tree height >",                   // 928
    "< Reduction for efficient parallel factorization >",                            // 929
    "             #columns for each panel:                      %lli",               // 930
    "             #columns for each panel:                        %d",               // 931
    "             #independent subgraphs:                       %lli",               // 932
    "             #independent subgraphs:                         %d",               // 933
    " < Preprocessing with multiple minimum degree with constraints >",              // 934
    " < with multiple minimum degree on the separator nodes         >",              // 935
    " <   no multiple minimum degree on the separator nodes         >",              // 936
    " < Preprocessing with state of the art partitioning metis>",                    // 937
    " < Preprocessing with input permutation >",                                     // 938
    "             #supernodes:                                  %lli",               // 939
    "             #supernodes:                                    %d",               // 940
    "             size of largest supernode:                    %lli",               // 941
    "             size of largest supernode:                      %d",               // 942
    "             number of nonzeros in L                       %lli",               // 943
    "             number of nonzeros in L                         %d",               // 944
    "             number of nonzeros in U                       %lli",               // 945
    "             number of nonzeros in U                         %d",               // 946
    "             number of nonzeros in L+U                     %lli",               // 947
    "             number of nonzeros in L+U                       %d",               // 948
    "             gflop   for the numerical factorization:        %f",               // 949
    "             gflop/s for the numerical factorization:        %f",               // 950
    "             ||A||                                           %f",               // 951
    " L&U for matrix number %d deleted",                                             // 952
    " cleaned memory, deleted number of L&U-factorizations: %d",                     // 953
    "Input error is not equal to ZERO, error = %d",                                  // 954
    "The file was not closed",                                                       // 955
    "ooc_cfg_path\t\tgot by Env =  %s",                                              // 956
    "ooc_cfg_file_name\tgot by Env =  %s",                                           // 957
    "ooc_path\t\t\tgot by Env =  %s",                                                // 958
    "ooc_max_core_size\tgot by Env =  %d",                                           // 959
    "ooc_keep_file\t\tgot by Env =  %d",                                             // 960
    "The file %s was not opened",                                                    // 961
    "Read failed",                                                                   // 962
    "Fseek failed",                                                                  // 963
    " SPDS_OOC_OPEN_MODE_FILE_ERROR occured: %s",                                    // 964
    " SPDS_OOC_OPEN_FILE_ERROR occured: %s",                                         // 965
    " SPDS_OOC_CLOSE_FILE_ERROR occured: %s",                                        // 966
    " SPDS_OOC_DELETE_FILE_ERROR occured: %s",                                       // 967
    " SPDS_OOC_NUMBER_OF_READ_EQUAL_ZERO occured: %s",                               // 968
    " SPDS_OOC_NUMBER_OF_READ_NOT_EQUAL_COUNT occured: %s",                          // 969
    " SPDS_OOC_READ_EOF_ERROR occured: %s",                                          // 970
    " SPDS_OOC_READ_SEEK_ERROR occured: %s",                                         // 971
    " SPDS_OOC_READ_INPUT_PARAMETERS_INCORRECT occured: %s",                         // 972
    " SPDS_OOC_NUMBER_OF_WRITE_EQUAL_ZERO occured: %s",                              // 973
    " SPDS_OOC_NUMBER_OF_WRITE_NOT_EQUAL_COUNT occured: %s",                         // 974
    " SPDS_OOC_WRITE_EOF_ERROR occured: %s",                                         // 975
    " SPDS_OOC_WRITE_SEEK_ERROR occured: %s",                                        // 976
    " SPDS_OOC_WRITE_INPUT_PARAMETERS_INCORRECT occured: %s",                        // 977
    "Error is not in the area of OOC I/O, please check it manualy, error = %d , %s", // 978
    "Read type = %d",                                                                // 979
    "Number of items read = %d",                                                     // 980
    "spds_read_ooc_file: Read error",                                                // 981
    "spds_read_ooc_file: Fseek error",                                               // 982
    "Write type = %d",                                                               // 983
    "spds_write_ooc_file: nfirst is EOF",                                            // 984
    "Wrote %d items",                                                                // 985
    "spds_write_ooc_file: Write error",                                              // 986
    "=== SPDS is running in In-Core mode, because iparam(60)=1 and there is enough RAM for In-Core "
    "===", // 987
    "=== SPDS is running in Out-Of-Core mode, because iparam(60)=1 and there is not enough RAM for "
    "In-Core ===",                                                       // 988
    "=== SPDS is running in In-Core mode, because iparam(60)=0 ===",     // 989
    "=== SPDS is running in Out-Of-Core mode, because iparam(60)=2 ===", // 990
    "Sorry, no statistics for %s in case of a diagonal matrix",          // 991
    // Rows added by this solver: the figures that iparm returns, so that a
    // report read alone tells the memory and the work of the refinement.
    "             peak memory of the analysis (KB):               %d", // 992
    "             permanent memory of the analysis (KB):          %d", // 993
    "             memory of factorization and solve (KB):         %d", // 994
    "             perturbed pivots:                               %d", // 995
    "             iterative refinement steps:                     %d", // 996
};

constexpr int kLastSolverRow = kFirstSolverRow + static_cast<int>(std::size(kSolverRows)) - 1;
static_assert(kLastSolverRow == 996);

std::string format(const char* row, int count, std::va_list args) {
    if (count <= 0) return row;
    std::va_list sizing;
    va_copy(sizing, args);
    const int length = std::vsnprintf(nullptr, 0, row, sizing);
    va_end(sizing);
    if (length <= 0) return {};
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), row, args);
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

} // namespace

const char* catalogueRow(int number) {
    if (number == 0) return "\n";
    if (number < kFirstSolverRow || number > kLastSolverRow) return nullptr;
    return kSolverRows[number - kFirstSolverRow];
}

std::string spds_text(int number, int count, ...) {
    const char* row = catalogueRow(number);
    if (!row) return {};
    std::va_list args;
    va_start(args, count);
    std::string text = format(row, count, args);
    va_end(args);
    return text;
}

void spds_message(int /*channel*/, int number, int count, ...) {
    if (number == 0) {
        std::fputs("\n", stdout);
        std::fflush(stdout);
        return;
    }
    const char* row = catalogueRow(number);
    if (!row) return;
    std::va_list args;
    va_start(args, count);
    const std::string text = format(row, count, args);
    va_end(args);
    std::fputs(text.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace skyrinse::spds
