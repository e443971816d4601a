#!/usr/bin/env bash
# Builds the worker and the benchmark, runs every measurement, prints the
# tables, and writes docs/PERFORMANCE.md (between its markers) and
# docs/throughput.png. A part measured alone (--only) rewrites only its own
# tables.
#
#   scripts/bench.sh [--quick] [halvarine-bench options...]
#
# --quick: a tiny run (a few MiB, one round) that only shows everything
# works; its output stays in the build tree and docs/ is left alone.
# BUILD_DIR (default build-bench) is where it builds. BEFORE (default
# 87a39b1, the last commit whose read callback woke at every TCP segment) is
# the commit whose worker the system-call counts show beside today's; it is
# built from `git archive` in a scratch directory outside the tree
# (SCRATCH_DIR, default ${TMPDIR:-/var/tmp}/halvarine-bench-before), which
# later runs reuse. Counting system calls takes perf,
# and shaping a link takes root: without them the bench says so and leaves
# that part out. The timings are only as quiet as the machine: see the load
# averages printed with the tables.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)

QUICK=0
HELP=0
ARGS=()
for a in "$@"; do
  if [ "$a" = "--quick" ]; then QUICK=1; fi
  if [ "$a" = "--help" ] || [ "$a" = "-h" ]; then HELP=1; fi
  ARGS+=("$a")
done

PACKAGES=(cmake make g++ libmms-dev libboost-dev libgtest-dev ffmpeg valgrind gnuplot-nox
          linux-perf iproute2)
. scripts/lib/packages.sh
ensure_packages "${PACKAGES[@]}"

BUILD=${BUILD_DIR:-build-bench}
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHALVARINE_TESTS=ON >/dev/null
cmake --build "$BUILD" -j"$(nproc)" --target halvarine halvarine-bench libmms-fetch >/dev/null
BUILD=$(cd "$BUILD" && pwd)

if ((HELP)); then
  sed -n '7p' "$0" | sed 's/^# *//'
  "$BUILD/bench/halvarine-bench" --help
  exit 0
fi

if ((QUICK)); then
  OUT="$BUILD/bench/quick"
  PNG="$OUT/throughput.png"
else
  OUT="$BUILD/bench/results"
  PNG="$ROOT/docs/throughput.png"
fi
mkdir -p "$OUT"
rm -f "$OUT"/table.md "$OUT"/syscalls.md "$OUT"/throughput.dat "$OUT"/callgrind.*.out

if ((!QUICK)); then
  BEFORE=${BEFORE:-87a39b1}
  SCRATCH=${SCRATCH_DIR:-${TMPDIR:-/var/tmp}/halvarine-bench-before}
  OLD="$SCRATCH/worker-$(git rev-parse --short "$BEFORE")"
  if [ ! -x "$OLD/build/halvarine" ]; then
    # Only a directory this script made (it holds the mark) is ever removed.
    if [ -e "$OLD" ] && [ ! -e "$OLD/.halvarine-bench" ]; then
      echo "bench.sh: $OLD is in the way; move it or set SCRATCH_DIR" >&2
      exit 1
    fi
    rm -rf "$OLD" && mkdir -p "$OLD/src" && touch "$OLD/.halvarine-bench"
    git archive "$BEFORE" | tar -x -C "$OLD/src"
    cmake -S "$OLD/src" -B "$OLD/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DHALVARINE_TESTS=OFF >/dev/null
    cmake --build "$OLD/build" -j"$(nproc)" --target halvarine >/dev/null
  fi
  ARGS+=(--before "$OLD/build/halvarine")
fi
# The controller socket's path in /tmp is fixed: as root the run gets a /tmp
# of its own, so that its workers meet no other controller on the machine
# (the benchmark makes its own network namespace).
RUN=("$BUILD/bench/halvarine-bench" --out "$OUT" "${ARGS[@]}")
if [ "$(id -u)" = 0 ]; then
  unshare --mount --propagation private sh -c 'mount -t tmpfs tmpfs /tmp && exec "$0" "$@"' "${RUN[@]}"
else
  "${RUN[@]}"
fi

# Where the worker's extra instructions go: the top of each profile, with
# this machine's directories taken out of the file names.
tidy() {
  sed -E -e "s|$ROOT/||g" -e "s|$BUILD/||g" -e 's|\[/usr/lib/[^]]*/|[|' \
    -e 's|:([A-Za-z_:~]+)\(.*\) \[|:\1() [|' -e 's|\./string/\.\./sysdeps/x86_64/multiarch/||'
}
PROFILE="$OUT/profile.txt"
: >"$PROFILE"
for who in worker libmms; do
  f="$OUT/callgrind.$who.MMSH.out"
  [ -f "$f" ] || continue
  {
    echo "$who, MMSH:"
    callgrind_annotate --inclusive=no "$f" \
      | awk '/file:function/{on=1; getline; next} on && NF && n++ < 8' | tidy
    echo
  } >>"$PROFILE"
done

[ -f "$OUT/throughput.dat" ] && gnuplot <<GNUPLOT
set terminal pngcairo size 900,560 font "sans,10"
set output "$PNG"
set title "Whole-stream throughput on loopback against the READ count (median, bars: min-max)"
set xlabel "bytes per READ (libmms: per read call)"
set ylabel "MB/s"
set logscale x 2
set xrange [3000:90000]
set yrange [0:*]
set key outside right
set grid
plot for [i=0:7] "$OUT/throughput.dat" index i using 1:2:3:4 \
  with yerrorlines lw 2 title columnheader(1)
GNUPLOT

if ((QUICK)); then
  echo "quick run: results in $OUT"
  exit 0
fi

# The tables and the profile of this run go between the markers of
# docs/PERFORMANCE.md; the text around them is written by hand.
DOC=docs/PERFORMANCE.md
python3 - "$DOC" "$OUT/table.md" "$OUT/syscalls.md" "$PROFILE" <<'PY'
import os, sys
doc, table, syscalls, profile = sys.argv[1:]
text = open(doc).read()
def splice(text, name, path, fence=False):
    if not os.path.exists(path) or os.path.getsize(path) == 0:
        return text
    body = open(path).read().rstrip()
    if fence:
        body = "```\n" + body + "\n```"
    begin, end = "<!-- %s:begin -->" % name, "<!-- %s:end -->" % name
    a, b = text.index(begin) + len(begin), text.index(end)
    return text[:a] + "\n" + body + "\n" + text[b:]
# A run of some parts (--only) brings some of the tables: those replace
# their namesakes (a table is named by its heading up to the first comma),
# the others stay, and the load line says which tables were measured alone.
def sections(block):
    head, *parts = block.split("\n### ")
    return head, ["### " + p for p in parts]
def name(section):
    return section.split("\n", 1)[0].split(",", 1)[0]
def without_end(section):
    return section.split("\nLoad average at the end:")[0].rstrip()
if os.path.exists(table) and os.path.getsize(table) > 0:
    begin, end = "<!-- results:begin -->", "<!-- results:end -->"
    old_head, old_parts = sections(text[text.index(begin) + len(begin):text.index(end)].strip())
    new_head, new_parts = sections(open(table).read().strip())
    fresh = {name(p): p.rstrip() for p in new_parts}
    if old_parts and not set(name(p) for p in old_parts) <= set(fresh):
        load = new_head.strip().split("load average at the start: ")[-1]
        end_line = "Load average at the end:" + old_parts[-1].split("Load average at the end:")[-1]
        fresh = {n: without_end(p) for n, p in fresh.items()}
        merged = [fresh.pop(name(p), without_end(p)) for p in old_parts] + list(fresh.values())
        merged[-1] += "\n\n" + end_line.strip()
        note = "; measured alone later (load average %s): %s" % (
            load, ", ".join(n[4:] for n in (name(p) for p in new_parts)))
        lines = old_head.strip().split("\n")
        lines[0] = lines[0].split("; measured alone later")[0] + note
        body = "\n".join(lines) + "\n\n" + "\n\n".join(m.rstrip() for m in merged) + "\n"
        open(table, "w").write(body)
text = splice(text, "results", table)
text = splice(text, "syscalls", syscalls)
text = splice(text, "profile", profile, fence=True)
open(doc, "w").write(text)
PY
echo "wrote $DOC$([ -f "$OUT/throughput.dat" ] && echo " and $PNG")"
