#!/usr/bin/env bash
# Prepares a Debian 12 machine for the Windows side of the project: the
# MinGW-w64 cross compilers, the source package of FFTW (built by
# build-fftw.sh) and Wine with Xvfb for the tests. Run as root; safe to run
# again.
set -euo pipefail
cd "$(dirname "$0")/../.."

if [[ $(id -u) -ne 0 ]]; then
  echo "setup.sh: run as root" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive

# Source entries for the same archives and suites as the machine's binary
# entries, so that 'apt-get source fftw3' finds the package the machine uses.
src_list=/etc/apt/sources.list.d/kelvane-deb-src.sources
: > "$src_list.new"
for f in /etc/apt/sources.list.d/*.sources; do
  [[ -e $f && $f != "$src_list" ]] || continue
  # deb822 stanzas: keep those of Debian's archive whose Types include deb.
  awk -v RS= -v ORS='\n\n' '
    /(^|\n)Types:[^\n]*(^| )deb( |$|\n)/ && /debian/ {
      gsub(/(^|\n)Types:[^\n]*/, "\nTypes: deb-src"); sub(/^\n/, ""); print }' "$f" >> "$src_list.new"
done
if [[ -f /etc/apt/sources.list ]]; then
  # One-line entries become deb822 stanzas of their own.
  grep -E '^[[:space:]]*deb[[:space:]]' /etc/apt/sources.list | grep debian |
    while read -r _ rest; do
      opts=""
      if [[ $rest == \[* ]]; then opts=${rest%%]*}; rest=${rest#*] }; fi
      read -r uri suite components <<<"$rest"
      printf 'Types: deb-src\nURIs: %s\nSuites: %s\nComponents: %s\n' "$uri" "$suite" "$components"
      if [[ $opts == *signed-by=* ]]; then
        sb=${opts#*signed-by=}; printf 'Signed-By: %s\n' "${sb%% *}"
      fi
      printf '\n'
    done >> "$src_list.new"
fi
mv "$src_list.new" "$src_list"

# wine32 needs the i386 architecture. The security suite's i386 index can lag
# behind its amd64 index; pinned low, both architectures take the versions of
# the main suites unless a package is only found in the security suite.
dpkg --add-architecture i386
cat > /etc/apt/preferences.d/kelvane-security <<'PIN'
Package: *
Pin: release l=Debian-Security
Pin-Priority: 100
PIN

# The same lag can make the security suite's i386 index fail to download
# (its size no longer matches the release file). That index is not needed:
# with the pin above nothing is taken from it, so carry on without it.
if ! apt-get update; then
  echo "setup.sh: some package indexes could not be fetched; going on without them" >&2
fi
apt-get install -y --no-install-recommends \
  dpkg-dev make \
  g++-mingw-w64-i686 g++-mingw-w64-x86-64 mingw-w64-tools binutils-mingw-w64 \
  wine wine32:i386 wine64 xvfb xauth

# The comparison under Wine renders the same streams with the Linux build,
# which needs the packages of the Linux side.
if [[ -x scripts/install-deps.sh ]]; then
  scripts/install-deps.sh
fi

# MinGW's compilers come in a win32-thread and a posix-thread flavour; the
# project starts no thread and wants no winpthread DLL, so take win32.
for t in i686 x86_64; do
  for tool in gcc g++; do
    alt=/usr/bin/$t-w64-mingw32-$tool-win32
    [[ -x $alt ]] && update-alternatives --set "$t-w64-mingw32-$tool" "$alt" >/dev/null
  done
done
echo "setup.sh: Windows toolchain and Wine are ready"
