#!/usr/bin/env bash
# install_test.sh BUILD_DIR LIBDIR PHOTO [FORTRAN_COMPILER]
# Installs BUILD_DIR into a temporary prefix and uses it as an outside project
# would. The C program checks its own residual; the Fortran one must give the
# same solution.
set -euo pipefail
build=$1 libdir=$2 photo=$3 fortran=${4:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() { echo "install_test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/skyrinse bin/spds-solve bin/haze-inspect include/spds.h include/nrt.h \
         include/spds.f90 "$libdir/libspds.so.1" "$libdir/libnrt.so.1" "$libdir/libskyrinse-image.so.1" \
         "$libdir/qt6/plugins/skyrinse/libZHaze.so" "$libdir/pkgconfig/spds.pc" \
         "$libdir/cmake/SPDS/SPDSConfig.cmake"; do
  [ -e "$prefix/$f" ] || fail "$f not installed"
done
if command -v help2man >/dev/null; then
  for c in skyrinse spds-solve haze-inspect; do
    grep -qF -- '\-\-help' "$prefix/share/man/man1/$c.1" || fail "manual page of $c lacks its options"
  done
fi
# Nothing installed may still point into the build tree.
for f in "$prefix"/bin/* "$prefix/$libdir"/lib*.so.1 "$prefix/$libdir"/qt6/plugins/skyrinse/*; do
  if readelf -d "$f" | grep -E 'RPATH|RUNPATH' | grep -qF "$build"; then fail "$f runs from $build"; fi
done

# pkg-config
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
cc -std=c11 -o "$work/c_laplace" "$here/laplace.c" $(pkg-config --cflags --libs spds) -lm \
   -Wl,-rpath,"$prefix/$libdir"
"$work/c_laplace" >"$work/c.txt" || fail "the pkg-config program failed"

# find_package
cmake -S "$here/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/laplace" >"$work/cmake.txt" || fail "the find_package program failed"
cmp -s "$work/c.txt" "$work/cmake.txt" || fail "the two C builds disagree"

# Fortran, against the C answer
if [ -n "$fortran" ]; then
  (cd "$work" && "$fortran" -o f_laplace "$prefix/include/spds.f90" "$here/laplace.f90" \
     -L"$prefix/$libdir" -lspds -Wl,-rpath,"$prefix/$libdir")
  "$work/f_laplace" >"$work/f.txt" || fail "the Fortran program failed"
  paste "$work/c.txt" "$work/f.txt" | awk '
    { d = $1 - $2; if (d < 0) d = -d; if (d > worst) worst = d; n++ }
    END { if (n != 64 || worst > 1e-13) { printf "Fortran differs by %g over %d values\n", worst, n; exit 1 } }' \
    || fail "Fortran and C disagree"
else
  echo "install_test: no Fortran compiler, Fortran interface not tried"
fi

# The installed host with the plug-in of the installed folder.
cp "$photo" "$work/photo.jpg"
out=$(env -u SKYRINSE_PLUGIN "$prefix/bin/skyrinse" --verbose "$work/photo.jpg" 2>&1) \
  || fail "skyrinse failed: $out"
grep -qF "from $prefix/$libdir/qt6/plugins/skyrinse/libZHaze.so" <<<"$out" \
  || fail "plug-in not taken from the installed folder: $out"
[ -s "$work/photo_dehazed.jpg" ] || fail "no dehazed photograph"
echo "install_test: passed"
