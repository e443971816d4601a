#!/usr/bin/env bash
# The fault table (tools/mmsserver/faults.tsv) written out for its readers.
#
#   fault-table.sh code TSV OUT   C++ for the servers and the tests: one
#                                 HALVARINE_FAULT_OPTION(...) line per option
#                                 row, one HALVARINE_FAULT_CASE(...) per case
#   fault-table.sh doc            rewrites the fault tables of
#                                 docs/RELIABILITY.md (between its markers)
#   fault-table.sh check          fails when the document is not up to date
#
# Every mode checks the rows first and names the first bad one.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
mode=${1:-}
tsv=${2:-$top/tools/mmsserver/faults.tsv}
doc=$top/docs/RELIABILITY.md
begin='<!-- fault-table: begin (written by scripts/fault-table.sh from tools/mmsserver/faults.tsv) -->'
end='<!-- fault-table: end -->'

validate() {
  awk -F'\t' '
    function bad(why) { printf "%s:%d: %s\n", FILENAME, FNR, why > "/dev/stderr"; failed = 1; exit 1 }
    /^#/ || /^$/ { next }
    $1 == "option" {
      if (NF != 7) bad("an option row has 7 columns")
      if ($4 !~ /^(bool|int|int64)$/) bad("type " $4 " is not bool, int or int64")
      if ($2 !~ /^--[a-z0-9-]+$/ || $3 !~ /^[a-zA-Z0-9]+$/) bad("bad flag or field")
      if (seen[$2]++) bad("flag " $2 " twice")
      next
    }
    $1 == "case" {
      if (NF != 11) bad("a case row has 11 columns")
      if ($4 !~ /^(mmst|mmsh|both|-)$/) bad("transport " $4)
      if ($3 !~ /^(media|controller|hazard)$/) bad("section " $3)
      if ($5 !~ /^(open-fails|waits-whole|short-read|garbage|long-url|nul-in-url|dies|dies-sigprof|continues|mutated|covered|untested)$/)
        bad("outcome kind " $5)
      if (($5 == "covered") != ($10 != "")) bad("a covered row, and only one, names its test")
      if (ids[$2 "/" $4]++) bad("id " $2 " twice for one transport")
      next
    }
    { bad("a row is an option or a case") }
  ' "$tsv"
}

code() {
  awk -F'\t' '
    function str(s) { gsub(/\\/, "\\\\", s); gsub(/"/, "\\\"", s); return "\"" s "\"" }
    BEGIN {
      print "// Written by scripts/fault-table.sh from tools/mmsserver/faults.tsv; do not edit."
      print "#ifndef HALVARINE_FAULT_OPTION"
      print "#define HALVARINE_FAULT_OPTION(flag, field, type, init, max, help)"
      print "#endif"
      print "#ifndef HALVARINE_FAULT_CASE"
      print "#define HALVARINE_FAULT_CASE(id, section, transport, outcome, arguments, fault, required, observed, test)"
      print "#endif"
    }
    $1 == "option" {
      type = $4 == "int64" ? "int64_t" : $4
      printf "HALVARINE_FAULT_OPTION(%s, %s, %s, %s, %s, %s)\n", str($2), $3, type, $5,
             $6 == "" ? "INT64_MAX" : $6, str($7)
    }
    $1 == "case" {
      printf "HALVARINE_FAULT_CASE(%s, %s, %s, %s, %s, %s, %s, %s, %s)\n", str($2), str($3), str($4),
             str($5), str($6), str($7), str($8), str($9), str($10)
    }
    END {
      print "#undef HALVARINE_FAULT_OPTION"
      print "#undef HALVARINE_FAULT_CASE"
    }
  ' "$tsv"
}

# The Markdown tables, one per section, rows in the table's order.
tables() {
  awk -F'\t' '
    function cell(s) { gsub(/\|/, "\\|", s); return s }
    function tests(id, t) {
      if (t == "both") return "`" id "Mmst`, `" id "Mmsh`"
      if (t == "-") return "`" id "`"
      return "`" id (t == "mmst" ? "Mmst" : "Mmsh") "`"
    }
    $1 != "case" { next }
    {
      where = $4 == "both" ? "MMST, MMSH" : $4 == "-" ? "" : toupper($4)
      args = $6 == "" ? "" : "`" $6 "`"
      extra = args
      if (where != "") extra = extra (extra == "" ? "" : "; ") where
      fault = cell($7) (extra == "" ? "" : " (" extra ")")
      test = $5 == "covered" ? $10 : $5 == "untested" ? "—" : tests($2, $4)
      row = "| " fault " | " cell($8) " | " cell($9) " | " cell(test) " |"
      if ($3 == "hazard") row = "| " cell($11) " " row
      body[$3] = body[$3] row "\n"
    }
    END {
      print "### Media servers\n"
      print "| Fault | Required outcome | Observed | Test |\n|---|---|---|---|"
      printf "%s\n", body["media"]
      print "### The controller\n"
      print "| Fault | Required outcome | Observed | Test |\n|---|---|---|---|"
      printf "%s\n", body["controller"]
      print "### libmms 0.6.4 hazards\n"
      print "| Hazard (where in libmms) | Server fault | Required outcome | Observed | Test |"
      print "|---|---|---|---|---|"
      printf "%s", body["hazard"]
    }
  ' "$tsv"
}

# The document with its fault tables as the table has them now.
rewritten() {
  grep -qxF "$begin" "$doc" && grep -qxF "$end" "$doc" ||
    { echo "$doc: no fault-table markers" >&2; exit 1; }
  TABLES=$(tables) awk -v begin="$begin" -v end="$end" '
    $0 == begin { print; print ""; print ENVIRON["TABLES"]; print ""; skip = 1; next }
    $0 == end { skip = 0 }
    !skip { print }
  ' "$doc"
}

validate
case "$mode" in
  code)
    out=${3:?usage: fault-table.sh code TSV OUT}
    code >"$out.tmp" && mv "$out.tmp" "$out"
    ;;
  doc)
    rewritten >"$doc.tmp" && mv "$doc.tmp" "$doc"
    ;;
  check)
    if ! rewritten | cmp -s - "$doc"; then
      echo "docs/RELIABILITY.md: the fault tables differ from tools/mmsserver/faults.tsv;" \
        "run scripts/fault-table.sh doc" >&2
      exit 1
    fi
    ;;
  *)
    echo "usage: fault-table.sh code TSV OUT | doc | check" >&2
    exit 2
    ;;
esac
