#!/usr/bin/env bash
# The Linux tarball as a user gets it: made by cpack from this build, unpacked
# into a folder of its own, and run from there.
#
#   tarball-test.sh make WORK CPACK CONFIG   make the tarball, unpack it into WORK
#   tarball-test.sh render WORK              kelvane-render from the unpacked bin/
#   tarball-test.sh lv2 WORK                 the unpacked bundle in lv2ls, lv2info, lv2apply
#   tarball-test.sh man WORK                 the manual page
#   tarball-test.sh clean WORK               remove WORK
#
# Exit status 77: a program that the test needs is not on this machine.
set -euo pipefail

action=$1
work=$2
shift 2

# What the tarball holds, below its one top folder; nothing more.
expected_files=(
  bin/kelvane-render
  lib/kelvane/out_kelvane.so
  lib/kelvane/out_wav.so
  lib/lv2/kelvane.lv2/encode.ttl
  lib/lv2/kelvane.lv2/headphone.ttl
  lib/lv2/kelvane.lv2/kelvane.so
  lib/lv2/kelvane.lv2/manifest.ttl
  lib/lv2/kelvane.lv2/upmix.ttl
  share/man/man1/kelvane-render.1
)

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

skip() {
  echo "SKIPPED: $*"
  exit 77
}

# The unpacked package's top folder, as `make` left it.
top() {
  [[ -s $work/top ]] || fail "no unpacked tarball in $work: the test 'packaging.tarball' makes it"
  cat "$work/top"
}

# Runs a program in a private home: nothing of the user's settings or caches
# is read or written. Further VAR=VALUE words may come first.
run_private() {
  mkdir -p "$work/home" "$work/config" "$work/cache"
  env -i PATH=/usr/bin:/bin HOME="$work/home" XDG_CONFIG_HOME="$work/config" XDG_CACHE_HOME="$work/cache" "$@"
}

# A 16-bit stereo WAV of a 440 Hz tone in both channels alike, which the
# decoders put in the centre: half a second at 44100 Hz.
write_centred_tone() {
  perl -e '
    my ($path) = @ARGV;
    my ($rate, $frames) = (44100, 22050);
    my $data = "";
    for my $i (0 .. $frames - 1) {
      my $v = int(8000 * sin(2 * 3.14159265358979 * 440 * $i / $rate));
      $data .= pack("s<s<", $v, $v);
    }
    open(my $out, ">:raw", $path) or die "$path: $!";
    print $out "RIFF", pack("V", 36 + length $data), "WAVE",
               "fmt ", pack("VvvVVvv", 16, 1, 2, $rate, $rate * 4, 4, 16),
               "data", pack("V", length $data), $data;
  ' "$1"
}

# Prints "CHANNELS FRAMES RMS..." of a WAV file (integer PCM or 32-bit
# float, plain or extensible), the RMS per channel in parts of full scale.
wav_stats() {
  perl -e '
    my ($path) = @ARGV;
    open(my $in, "<:raw", $path) or die "$path: $!";
    local $/;
    my $bytes = <$in>;
    substr($bytes, 0, 4) eq "RIFF" && substr($bytes, 8, 4) eq "WAVE" or die "$path: not a WAV file\n";
    my ($format, $channels, $bits, $data);
    my $at = 12;
    while ($at + 8 <= length $bytes) {
      my ($id, $size) = (substr($bytes, $at, 4), unpack("V", substr($bytes, $at + 4, 4)));
      if ($id eq "fmt ") {
        ($format, $channels) = unpack("vv", substr($bytes, $at + 8, 4));
        $bits = unpack("v", substr($bytes, $at + 22, 2));
        $format = unpack("v", substr($bytes, $at + 32, 2)) if $format == 0xFFFE;
      } elsif ($id eq "data") {
        $data = substr($bytes, $at + 8, $size);
      }
      $at += 8 + $size + ($size & 1);
    }
    defined $data && $channels or die "$path: no fmt or data chunk\n";
    my $width = $bits / 8;
    my $frames = int(length($data) / ($width * $channels));
    my @sum = (0) x $channels;
    for my $i (0 .. $frames * $channels - 1) {
      my $word = substr($data, $i * $width, $width);
      my $v;
      if ($format == 3) { $v = unpack("f<", $word) }
      elsif ($bits == 16) { $v = unpack("s<", $word) / 32768 }
      elsif ($bits == 24) { $v = unpack("l<", "\0" . $word) / 2147483648 }
      elsif ($bits == 32) { $v = unpack("l<", $word) / 2147483648 }
      else { die "$path: $bits-bit words\n" }
      $sum[$i % $channels] += $v * $v;
    }
    printf("%d %d%s\n", $channels, $frames, join("", map { sprintf(" %.6f", sqrt($_ / ($frames || 1))) } @sum));
  ' "$1"
}

# Six channels L, R, C, LFE, SL, SR of the input's length, the centre the
# loudest: the tone went through the decoder.
check_centred_upmix() {
  local file=$1 what=$2
  local stats
  stats=$(wav_stats "$file")
  echo "$what: channels, frames, RMS per channel: $stats"
  read -r channels frames l r c lfe sl sr <<<"$stats"
  [[ $channels -eq 6 && $frames -eq 22050 ]] || fail "$what: expected 6 channels of 22050 frames"
  perl -e 'my ($l, $r, $c, $sl, $sr) = @ARGV; exit !($c > 0.01 && $c > $l && $c > $r && $c > $sl && $c > $sr)' \
    "$l" "$r" "$c" "$sl" "$sr" || fail "$what: the centred tone is not loudest in the centre"
}

case $action in
make)
  cpack=$1
  config=$2
  rm -rf "$work"
  mkdir -p "$work/unpacked"
  "$cpack" --config "$config" -B "$work/cpack" > "$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; fail "cpack"; }
  tarballs=("$work"/cpack/*.tar.gz)
  [[ ${#tarballs[@]} -eq 1 && -f ${tarballs[0]} ]] || fail "cpack made no tarball, or more than one"
  echo "made $(basename "${tarballs[0]}"), $(stat -c %s "${tarballs[0]}") bytes"
  tar -xzf "${tarballs[0]}" -C "$work/unpacked"
  folders=("$work"/unpacked/*)
  [[ ${#folders[@]} -eq 1 && -d ${folders[0]} ]] || fail "the tarball has no single top folder"
  [[ $(basename "${folders[0]}") == "$(basename "${tarballs[0]}" .tar.gz)" ]] \
    || fail "the top folder is not named like the tarball"
  found=$(cd "${folders[0]}" && find . -type f -o -type l | sed 's|^\./||' | LC_ALL=C sort)
  wanted=$(printf '%s\n' "${expected_files[@]}" | LC_ALL=C sort)
  if [[ $found != "$wanted" ]]; then
    diff <(echo "$wanted") <(echo "$found") >&2 || true
    fail "the tarball does not hold exactly the files listed in ${BASH_SOURCE[0]} (< missing, > not listed)"
  fi
  [[ -x ${folders[0]}/bin/kelvane-render ]] || fail "bin/kelvane-render is not executable"
  echo "${folders[0]}" > "$work/top"
  echo "unpacked into ${folders[0]}:"
  printf '  %s\n' "${expected_files[@]}"
  ;;
render)
  top=$(top)
  write_centred_tone "$work/tone.wav"
  # From the unpacked folder, by its path, as someone runs it who unpacked
  # it anywhere; -v names the plug-ins that it loads.
  (cd "$work" && run_private "$top/bin/kelvane-render" -v -y --mode asr tone.wav rendered.wav) \
    > "$work/render.out" 2> "$work/render.err" || { cat "$work/render.err"; fail "kelvane-render failed"; }
  cat "$work/render.err"
  grep -qxF "kelvane-render: player: processor $top/lib/kelvane/out_kelvane.so" "$work/render.err" \
    || fail "kelvane-render did not load the unpacked out_kelvane.so"
  grep -qxF "kelvane-render: player: writer $top/lib/kelvane/out_wav.so" "$work/render.err" \
    || fail "kelvane-render did not load the unpacked out_wav.so"
  check_centred_upmix "$work/rendered.wav" "kelvane-render"
  ;;
lv2)
  top=$(top)
  for program in lv2ls lv2info lv2apply; do
    command -v $program > /dev/null || skip "$program is not installed (Debian's lilv-utils)"
  done
  # LV2_PATH alone: no other bundle on the machine takes part.
  listed=$(run_private LV2_PATH="$top/lib/lv2" lv2ls | LC_ALL=C sort)
  echo "lv2ls: $listed"
  [[ $listed == $'urn:kelvane:encode\nurn:kelvane:headphone\nurn:kelvane:upmix' ]] \
    || fail "lv2ls does not list the three plug-ins of the unpacked bundle"
  run_private LV2_PATH="$top/lib/lv2" lv2info urn:kelvane:upmix > "$work/lv2info.out" \
    || fail "lv2info does not take the unpacked upmix plug-in"
  grep -E "^[[:space:]]*Binary:" "$work/lv2info.out"
  grep -qE "^[[:space:]]*Binary:[[:space:]]+file://$top/lib/lv2/kelvane.lv2/kelvane.so$" "$work/lv2info.out" \
    || fail "lv2info does not name the unpacked bundle's library"
  write_centred_tone "$work/tone.wav"
  run_private LV2_PATH="$top/lib/lv2" lv2apply -i "$work/tone.wav" -o "$work/lv2.wav" urn:kelvane:upmix \
    || fail "lv2apply through the unpacked upmix plug-in"
  check_centred_upmix "$work/lv2.wav" "lv2apply"
  ;;
man)
  top=$(top)
  page=$top/share/man/man1/kelvane-render.1
  [[ -f $page ]] || fail "no manual page in share/man/man1"
  head -n 1 "$page" | grep -q '^\.TH KELVANE-RENDER 1 ' || fail "share/man/man1/kelvane-render.1 is not the manual page"
  if command -v man > /dev/null; then
    # Found through the unpacked folder's share/man, as a user's MANPATH does.
    shown=$(MANPATH="$top/share/man" man -w kelvane-render)
    echo "man -w: $shown"
    [[ $shown == "$page" ]] || fail "man does not find the page in the unpacked share/man"
  else
    echo "man is not installed: the page was checked as a file only"
  fi
  ;;
clean)
  rm -rf "$work"
  ;;
*)
  echo "usage: tarball-test.sh make|render|lv2|man|clean WORK [CPACK CONFIG]" >&2
  exit 2
  ;;
esac
