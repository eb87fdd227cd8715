! Fortran interface of SPDS, the sparse direct solver of spds.h.
!
! spds takes every argument by address, so Fortran calls the C entry directly
! and this module only declares it:
!
!     use spds_interface
!     integer(c_intptr_t) :: pt(64) = 0
!     call spds(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, &
!               iparm, msglvl, b, x, error)
!
! The handle pt holds 64 address-sized words, all zero before the first call.
! a, b and x are double precision, or single when iparm(28) = 1 at the
! analysis, so any real array is accepted. Indices are one-based, as in
! Fortran; iparm(k) here is iparm[k-1] of the C documentation.
module spds_interface
    use, intrinsic :: iso_c_binding, only: c_int, c_intptr_t
    implicit none
    private
    public :: spds

    interface
        subroutine spds(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, &
                        msglvl, b, x, error) bind(C, name="spds")
            import :: c_int, c_intptr_t
            integer(c_intptr_t), intent(inout) :: pt(64)
            integer(c_int), intent(in) :: maxfct, mnum, mtype, phase, n
            type(*), intent(in) :: a(*)
            integer(c_int), intent(in) :: ia(*), ja(*)
            integer(c_int), intent(inout) :: perm(*)
            integer(c_int), intent(in) :: nrhs
            integer(c_int), intent(inout) :: iparm(64)
            integer(c_int), intent(in) :: msglvl
            type(*), intent(inout) :: b(*), x(*)
            integer(c_int), intent(out) :: error
        end subroutine spds
    end interface
end module spds_interface
