#!/usr/bin/env bash
# Whole processes, same input files: kelvane-render against ffmpeg and sox.
#
# Makes its own inputs (600 s of stereo, 120 s of six channels, 1 s of stereo,
# all 16-bit at 44100 Hz) and the headphone filter's response file from our
# six tables, installs ffmpeg and sox from Debian when they are missing, then
# runs ours and theirs alternately, PAIRS times each (at least 3), and prints
# a Markdown table of the medians, the ratios and the targets. Our runs use
# a planner wisdom cache of their own, filled by one untimed run first, and
# -q: the output alone, as theirs, so the levels are not measured. A second
# table times ours again without -q (the levels measured, the summary
# printed) against the same medians of theirs.
# Before every timed run the earlier outputs are removed and the disk is
# synced, so that no run pays for writing back another's files.
#
#   bench/compare.sh              # BUILD=build, PAIRS=3
#   PAIRS=5 BUILD=out bench/compare.sh
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$root/build}
pairs=${PAIRS:-3}
(( pairs >= 3 )) || pairs=3
render=$build/hosts/render/kelvane-render
hrir_tool=$build/bench/kelvane-hrir-wav
for tool in "$render" "$hrir_tool"; do
    [[ -x $tool ]] || { echo "compare.sh: $tool is missing; build first (make compare does)" >&2; exit 1; }
done

missing=()
command -v ffmpeg >/dev/null || missing+=(ffmpeg)
command -v sox >/dev/null || missing+=(sox)
if (( ${#missing[@]} )); then
    echo "Installing ${missing[*]} from Debian..." >&2
    sudo=""
    [[ $(id -u) -eq 0 ]] || sudo=sudo
    $sudo apt-get update -qq || true
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/kelvane-compare-XXXXXX")
trap 'rm -rf "$work"' EXIT
export XDG_CACHE_HOME=$work/cache

echo "Making the inputs..." >&2
sox -n -r 44100 -c 2 -b 16 "$work/stereo600.wav" synth 600 pinknoise pinknoise vol 0.5
sox -n -r 44100 -c 6 -b 16 "$work/six120.wav" synth 120 pinknoise pinknoise sine 300 brownnoise pinknoise pinknoise vol 0.4
sox -n -r 44100 -c 2 -b 16 "$work/stereo1.wav" synth 1 pinknoise pinknoise vol 0.5
"$hrir_tool" "$work/hrir.wav" 44100
# Fills the planner's wisdom cache.
"$render" -q --mode asr "$work/stereo1.wav" "$work/warm.wav" >/dev/null

# Seconds that a command takes, on the clock and on the processors (user
# and system time together), its output thrown away. Run in a subshell of
# its own, whose children's times start at zero.
seconds() {
    local start end
    start=$EPOCHREALTIME
    "$@" >/dev/null 2>&1 || { echo "compare.sh: failed: $*" >&2; exit 1; }
    end=$EPOCHREALTIME
    # A builtin with a redirection runs in this shell, not in a pipe's.
    times > "$work/times"
    tail -n 1 "$work/times" | awk -v a="$start" -v b="$end" '{
        cpu = 0
        for (i = 1; i <= 2; ++i) { split($i, p, "m"); sub("s", "", p[2]); cpu += p[1] * 60 + p[2] }
        printf "%.4f %.4f\n", b - a, cpu }'
}

# Before each timed run: the earlier outputs removed and everything written
# so far on the disk, so that no run pays for another's files.
settle() {
    rm -f "$work"/out-*.wav
    sync
}

# awk's arithmetic on two numbers: calc A OP B.
calc() {
    awk -v a="$1" -v b="$3" -v op="$2" 'BEGIN { if (op == "/") print a / b; else if (op == ">=") print (a >= b); else print (a < b) }'
}

median() {
    printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# compare LABEL TARGET-RATIO -- OUR COMMAND... -- THEIR COMMAND...
rows=()
theirs_wall=()
theirs_cpu=()
compare() {
    local label=$1 target=$2; shift 3
    local ours_cmd=() theirs_cmd=()
    while [[ $1 != -- ]]; do ours_cmd+=("$1"); shift; done
    shift
    theirs_cmd=("$@")
    local a=() b=() ca=() cb=() t
    for ((i = 0; i < pairs; ++i)); do
        settle
        t=$(seconds "${ours_cmd[@]}"); a+=("${t% *}"); ca+=("${t#* }")
        settle
        t=$(seconds "${theirs_cmd[@]}"); b+=("${t% *}"); cb+=("${t#* }")
    done
    local ma mb mca mcb ratio cpu_ratio verdict
    ma=$(median "${a[@]}"); mb=$(median "${b[@]}")
    mca=$(median "${ca[@]}"); mcb=$(median "${cb[@]}")
    ratio=$(calc "$mb" / "$ma")
    cpu_ratio=$(calc "$mcb" / "$mca")
    verdict=$(calc "$ratio" ">=" "$target")
    rows+=("$(printf '| %s | %.3f s | %.3f s | %.2f | %.3f s | %.3f s | %.2f | %s %s |' "$label" "$ma" "$mb" "$ratio" \
        "$mca" "$mcb" "$cpu_ratio" "$( ((verdict)) && echo met || echo 'NOT met')" "(>= $target)")")
    theirs_wall+=("$mb")
    theirs_cpu+=("$mcb")
}

# measured INDEX LABEL -- OUR COMMAND...: ours again, the command as given
# (without -q), against theirs' medians of row INDEX.
measured_rows=()
measured() {
    local index=$1 label=$2; shift 3
    local a=() ca=() t
    for ((i = 0; i < pairs; ++i)); do
        settle
        t=$(seconds "$@"); a+=("${t% *}"); ca+=("${t#* }")
    done
    local ma mca
    ma=$(median "${a[@]}"); mca=$(median "${ca[@]}")
    measured_rows+=("$(printf '| %s | %.3f s | %.3f s | %.2f | %.3f s | %.3f s | %.2f |' "$label" "$ma" \
        "${theirs_wall[$index]}" "$(calc "${theirs_wall[$index]}" / "$ma")" "$mca" "${theirs_cpu[$index]}" \
        "$(calc "${theirs_cpu[$index]}" / "$mca")")")
}

load_before=$(cut -d' ' -f1-3 /proc/loadavg)
echo "Running $pairs pairs per job..." >&2
compare "600 s stereo, mode 3 vs \`-af surround\`" 5 -- \
    "$render" -q --mode asr "$work/stereo600.wav" "$work/out-o3.wav" -- \
    ffmpeg -nostdin -loglevel error -y -i "$work/stereo600.wav" -af surround "$work/out-f3.wav"
compare "120 s six-channel, mode 4 \`--two-channel\` vs \`headphone\`" 2 -- \
    "$render" -q --mode headphone --two-channel "$work/six120.wav" "$work/out-o4.wav" -- \
    ffmpeg -nostdin -loglevel error -y -i "$work/six120.wav" -i "$work/hrir.wav" -filter_complex \
    "[0:a][1:a]headphone=map=FL|FR|FC|LFE|BL|BR:hrir=multich:type=freq:size=8191" "$work/out-f4.wav"
compare "120 s six-channel, mode 5 \`--two-channel\` vs \`aresample=matrix_encoding=dplii\`" 1.5 -- \
    "$render" -q --mode encode --two-channel "$work/six120.wav" "$work/out-o5.wav" -- \
    ffmpeg -nostdin -loglevel error -y -i "$work/six120.wav" -af aresample=matrix_encoding=dplii -ac 2 "$work/out-f5.wav"
compare "600 s stereo, mode 0 \`--two-channel\` vs \`sox in.wav out.wav\`" 1 -- \
    "$render" -q --mode bypass --two-channel "$work/stereo600.wav" "$work/out-o0.wav" -- \
    sox "$work/stereo600.wav" "$work/out-s0.wav"
measured 0 "600 s stereo, mode 3" -- "$render" --mode asr "$work/stereo600.wav" "$work/out-o3.wav"
measured 1 "120 s six-channel, mode 4 \`--two-channel\`" -- \
    "$render" --mode headphone --two-channel "$work/six120.wav" "$work/out-o4.wav"
measured 2 "120 s six-channel, mode 5 \`--two-channel\`" -- \
    "$render" --mode encode --two-channel "$work/six120.wav" "$work/out-o5.wav"
measured 3 "600 s stereo, mode 0 \`--two-channel\`" -- \
    "$render" --mode bypass --two-channel "$work/stereo600.wav" "$work/out-o0.wav"
short=() short_cpu=()
for ((i = 0; i < pairs; ++i)); do
    settle
    t=$(seconds "$render" -q --mode asr "$work/stereo1.wav" "$work/out-o1.wav")
    short+=("${t% *}"); short_cpu+=("${t#* }")
done
short_median=$(median "${short[@]}")
short_cpu_median=$(median "${short_cpu[@]}")
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')
echo
echo "$(date -u +%Y-%m-%d), $cpu, $(nproc) cores; load average $load_before before, $load_after after;" \
     "medians of $pairs runs each, ours and theirs alternating, wisdom cached. Wall clock, and" \
     "processor time (user + system) of the whole process; the targets are on the wall clock."
echo
echo "| job | ours | theirs | ratio | ours, processor | theirs, processor | ratio | target |"
echo "|---|---|---|---|---|---|---|---|"
printf '%s\n' "${rows[@]}"
printf '| 1 s stereo, mode 3 | %.3f s | | | %.3f s | | | %s (< 0.15 s) |\n' "$short_median" "$short_cpu_median" \
    "$( (( $(calc "$short_median" "<" 0.15) )) && echo met || echo 'NOT met')"
echo
echo "Ours again without -q: the levels before the output conversion measured by a second engine, the"
echo "input's and the output's levels, the summary printed; theirs as above."
echo
echo "| job, levels measured | ours | theirs | ratio | ours, processor | theirs, processor | ratio |"
echo "|---|---|---|---|---|---|---|"
printf '%s\n' "${measured_rows[@]}"
