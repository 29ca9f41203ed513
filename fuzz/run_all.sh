#!/usr/bin/env bash
# Runs the fuzz targets of a KVX_FUZZ build one after the other (the machine's cores are shared, so
# never two at once), each for SECONDS, and appends one summary line per target to summary.tsv:
# target, seconds run, executions (libFuzzer's final count), crashes (inputs it saved).
#
#   fuzz/run_all.sh BUILD_DIR SECONDS [TARGET...]      e.g. fuzz/run_all.sh build-fuzz 600
#
# Logs go to $FUZZ_LOGS (default: fuzz_logs beside the repository): <target>.log per target,
# crashing inputs under crashes/<target>/, and the corpus each run grows under corpus/<target>/.
# The committed seeds (fuzz/corpus/<target>/) are read but never written. A crash ends that
# target's run early, as libFuzzer does; fix it, copy the input into fuzz/corpus/<target>/ as
# crash_<what>, and run the target again.
set -uo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
repo="$(dirname "$here")"
build="$(cd "${1:?usage: $0 BUILD_DIR SECONDS [TARGET...]}" && pwd)" || exit 1
seconds="${2:?usage: $0 BUILD_DIR SECONDS [TARGET...]}"
shift 2
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(pair_index config model mismatch_table wire_frame fastq labels)
logs="${FUZZ_LOGS:-$(dirname "$repo")/fuzz_logs}"
mkdir -p "$logs"
summary="$logs/summary.tsv"
[ -s "$summary" ] || printf 'target\tseconds\texecutions\tcrashes\tfinished\n' > "$summary"

for name in "${targets[@]}"; do
  binary="$build/bin/fuzz_$name"
  if [ ! -x "$binary" ]; then
    echo "$binary not built" >&2
    printf '%s\t0\t0\t0\tnot built\n' "$name" >> "$summary"
    continue
  fi
  # libFuzzer's job log (fuzz-0.log) lands in work/; it also ends up in the main log.
  work="$logs/work/$name" corpus="$logs/corpus/$name" crashes="$logs/crashes/$name"
  mkdir -p "$work" "$corpus" "$crashes" && rm -f "$work"/fuzz-*.log
  dict=() && [ -f "$here/dict/$name.dict" ] && dict=(-dict="$here/dict/$name.dict")
  before=$(find "$crashes" -type f | wc -l)
  start=$(date +%s)
  (
    cd "$work" &&
    UBSAN_OPTIONS=print_stacktrace=1 "$binary" -max_total_time="$seconds" -jobs=1 -workers=1 \
      -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 -artifact_prefix="$crashes/" "${dict[@]}" \
      "$corpus" "$repo/fuzz/corpus/$name"
  ) > "$logs/$name.log" 2>&1
  status=$?
  end=$(date +%s)
  executions=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$logs/$name.log" | tail -1 | grep -o '[0-9]*$')
  after=$(find "$crashes" -type f | wc -l)
  printf '%s\t%s\t%s\t%s\t%s\n' "$name" "$((end - start))" "${executions:-0}" "$((after - before))" \
    "$(date -u +%Y-%m-%dT%H:%M:%SZ) exit $status" >> "$summary"
done
