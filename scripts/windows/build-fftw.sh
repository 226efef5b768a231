#!/usr/bin/env bash
# Builds the single-precision FFTW for a MinGW-w64 target from Debian's own
# source package and installs it under PREFIX as a static library. The result
# is kept: a second run with the same PREFIX only checks that it is there.
#
#   build-fftw.sh HOST PREFIX
#
# HOST is i686-w64-mingw32 or x86_64-w64-mingw32. The sources and the object
# files stay in PREFIX/../ beside the installed tree, inside the build folder.
set -euo pipefail

host=${1:?usage: build-fftw.sh HOST PREFIX}
prefix=${2:?usage: build-fftw.sh HOST PREFIX}
jobs=${KELVANE_JOBS:-2}

if [[ -f $prefix/lib/libfftw3f.a && -f $prefix/include/fftw3.h ]]; then
  exit 0
fi

mkdir -p "$prefix"
prefix=$(cd "$prefix" && pwd)
work=$(dirname "$prefix")/fftw-work
mkdir -p "$work/src"

# One unpacked source tree per work folder; 'apt-get source' needs the
# deb-src entries that setup.sh writes.
src=$(find "$work/src" -maxdepth 1 -mindepth 1 -type d -name 'fftw3-*' | head -n 1)
if [[ -z $src ]]; then
  (cd "$work/src" && apt-get source --only-source fftw3)
  src=$(find "$work/src" -maxdepth 1 -mindepth 1 -type d -name 'fftw3-*' | head -n 1)
fi
if [[ -z $src || ! -x $src/configure ]]; then
  echo "build-fftw.sh: no FFTW source tree with a configure script in $work/src" >&2
  exit 1
fi

# The same floating-point rules as the project's own code: SSE arithmetic on
# 32-bit x86 and no contracted multiply-add.
cflags="-O2 -ffp-contract=off"
case $host in
  i686-*) cflags="$cflags -msse2 -mfpmath=sse" ;;
esac

rm -rf "$work/build-$host"
mkdir -p "$work/build-$host"
cd "$work/build-$host"
"$src/configure" --host="$host" --prefix="$prefix" \
  --enable-float --enable-sse2 --with-our-malloc --disable-fortran \
  --enable-static --disable-shared \
  --disable-doc --disable-threads --disable-openmp --disable-mpi \
  CFLAGS="$cflags" > configure.log 2>&1 || { tail -n 40 configure.log >&2; exit 1; }
make -j"$jobs" > make.log 2>&1 || { tail -n 40 make.log >&2; exit 1; }
make install > install.log 2>&1 || { tail -n 40 install.log >&2; exit 1; }
echo "build-fftw.sh: FFTW for $host in $prefix"
