! The 5-point Laplacian of an 8 x 8 grid solved through SPDS from Fortran; the
! install test compares its solution with the C program's.
program laplace
    use, intrinsic :: iso_c_binding, only: c_int, c_intptr_t, c_double
    use spds_interface
    implicit none
    integer, parameter :: m = 8, n = m * m
    integer(c_intptr_t) :: pt(64)
    integer(c_int) :: ia(n + 1), ja(3 * n), perm(n), iparm(64), error
    real(c_double) :: a(3 * n), b(n), x(n)
    integer :: i, k

    ! Upper triangle in one-based compressed rows, as the C program builds it.
    k = 0
    do i = 1, n
        ia(i) = k + 1
        k = k + 1
        ja(k) = i
        a(k) = 4.0_c_double
        if (mod(i, m) /= 0) then
            k = k + 1
            ja(k) = i + 1
            a(k) = -1.0_c_double
        end if
        if (i + m <= n) then
            k = k + 1
            ja(k) = i + m
            a(k) = -1.0_c_double
        end if
    end do
    ia(n + 1) = k + 1
    b = 1.0_c_double
    pt = 0
    iparm = 0

    call spds(pt, 1, 1, 2, 13, n, a, ia, ja, perm, 1, iparm, 0, b, x, error)
    if (error /= 0) then
        write (0, '(a, i0)') 'spds: error ', error
        stop 1
    end if
    call spds(pt, 1, 1, 2, -1, n, a, ia, ja, perm, 1, iparm, 0, b, x, error)
    do i = 1, n
        write (*, '(es25.17)') x(i)
    end do
end program laplace
