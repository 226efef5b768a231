#!/usr/bin/env bash
# The Windows ZIP as a user gets it: made by cpack from the two Windows
# builds, unpacked into the Plugins folder of a player's folder, and this
# build's DLL loaded from there under Wine by the test host, with the
# recording output plug-in put beside it for the player's sound device.
#
#   zip-test.sh WORK CMAKE CPACK CONFIG FOLDER RUN_WINE WINE_STATE HOST RECORDER
#
# FOLDER is where this build's DLL stands in the ZIP: "." for the 32-bit
# one, x64 for the 64-bit one.
set -euo pipefail

work=$1 cmake=$2 cpack=$3 config=$4 folder=$5 run_wine=$6 wine_state=$7 host=$8 recorder=$9

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# The machine field of a PE file's header: 14c for x86, 8664 for x86-64.
pe_machine() {
  local offset
  offset=$(od -An -t u4 -j 60 -N 4 "$1" | tr -d ' ')
  od -An -t x2 -j $((offset + 4)) -N 2 "$1" | tr -d ' '
}

rm -rf "$work"
mkdir -p "$work/Player/Plugins"
"$cpack" --config "$config" -B "$work/cpack" > "$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; fail "cpack"; }
zips=("$work"/cpack/*.zip)
[[ ${#zips[@]} -eq 1 && -f ${zips[0]} ]] || fail "cpack made no ZIP, or more than one"
zip=${zips[0]}
echo "made $(basename "$zip"), $(stat -c %s "$zip") bytes"

# Exactly these files, no folder around them.
listed=$("$cmake" -E tar tf "$zip" | grep -v '/$' | LC_ALL=C sort)
echo "in the ZIP:" $listed
[[ $listed == $'out_kelvane.dll\nout_kelvane.txt\nx64/out_kelvane.dll' ]] \
  || fail "the ZIP must hold out_kelvane.dll, out_kelvane.txt and x64/out_kelvane.dll, and nothing else"

plugins=$work/Player/Plugins
(cd "$plugins" && "$cmake" -E tar xf "$zip")
[[ $(pe_machine "$plugins/out_kelvane.dll") == 014c ]] || fail "out_kelvane.dll at the top is not a 32-bit DLL"
[[ $(pe_machine "$plugins/x64/out_kelvane.dll") == 8664 ]] || fail "x64/out_kelvane.dll is not a 64-bit DLL"
text=$plugins/out_kelvane.txt
grep -q $'\r$' "$text" || fail "out_kelvane.txt does not have Windows line endings"
for word in Plugins out_kelvane.dll x64 Select Configure; do
  grep -q "$word" "$text" || fail "out_kelvane.txt does not mention $word"
done

# The player's sound device: our recorder, in the same folder as the DLL.
here=$plugins
[[ $folder == . ]] || here=$plugins/$folder
cp "$recorder" "$here/out_recorder.dll"
bash "$run_wine" exec "$wine_state" "$host" package "$here/out_kelvane.dll" "$here/out_recorder.dll" "$work/run"
rm -rf "$work"
