#!/usr/bin/env bash
# Runs every check of the CUDA backend in one call on a GPU host, from the repository root:
#   scripts/gpu-check.sh            unpack build-gpu/gpu-bundle.tar.xz, run the steps, write
#                                   $OUT/gpu-report.md and $OUT/qvbench.csv
#   scripts/gpu-check.sh --dry-run  no GPU needed: say whether the bundle is here, list the steps
# Make the bundle here first (make gpu-bundle). One command carries at most 64 MiB: carry
# .gpu-runtime in one call (the host keeps it while warm) and the bundle in the next.
# Each step prints "step N: NAME" and its result; the whole stays under 9 minutes.
set -uo pipefail
ROOT=$(pwd)
BUNDLE=${QV_GPU_BUNDLE:-build-gpu/gpu-bundle.tar.xz}
OUT=${OUT:-$ROOT/out}
STEPS=(test-gpu compute-sanitizer qvbench-kernels qvbench display jpeg)
GOALS=("every test on CUDA; host and CUDA bit-exact (one storing step for linear filtering)"
  "no memcheck or racecheck report"
  "demosaic <= 1.2x floor and >= 1.5x faster than NPP; shrink, YUV <= 1.3x; mix, Sobel <= 1.5x; min/max <= 2x"
  "six 4K cameras >= 0.8 of the PCIe ceiling, 0 allocations a set; wall <= 2x floor"
  "one registration over 100 frames; hand-over near one device copy"
  "conversion + nvJPEG <= 0.5 ms a 4K frame, >= 20x TurboJPEG; decoded frame as TurboJPEG's")

if [ "${1:-}" = "--dry-run" ]; then
  if [ -f "$BUNDLE" ]; then echo "bundle: $BUNDLE ($(du -h "$BUNDLE" | cut -f1))"
  else echo "bundle: $BUNDLE missing (make gpu-bundle)"; fi
  for i in "${!STEPS[@]}"; do echo "step $((i + 1)): ${STEPS[$i]} (goal: ${GOALS[$i]})"; done
  exit 0
fi

[ -f "$BUNDLE" ] || { echo "gpu-check: $BUNDLE missing (make gpu-bundle here first)" >&2; exit 2; }
# shellcheck disable=SC1091
source .gpu-runtime/enter.sh || { echo "gpu-check: no .gpu-runtime/enter.sh" >&2; exit 2; }
mkdir -p "$OUT"
B=$ROOT/build-gpu
tar -C "$B" -xJf "$BUNDLE"
START=$(date +%s)
REPORT="$OUT/gpu-report.md"
printf '# GPU check, %s, %s\n\n| Step | Result | Figure | Goal |\n|---|---|---|---|\n' \
  "$(date -u +%F)" "$(nvidia-smi --query-gpu=name --format=csv,noheader 2>/dev/null | head -1)" \
  >"$REPORT"

# Runs one step's commands with a time limit; its log is $OUT/step-N.log, its figure the last
# line of the log that the step's pattern matches.
step() {
  local n=$1 name=$2 limit=$3 pattern=$4
  shift 4
  echo "step $n: $name"
  local log="$OUT/step-$n.log"
  # A bash of its own, so that the limit also holds for this script's functions.
  timeout "$limit" bash -c '"$@"' step "$@" >"$log" 2>&1
  local rc=$? result=pass
  [ $rc -eq 0 ] || result="fail ($rc)"
  local figure
  figure=$(grep -E "$pattern" "$log" | tail -1 | tr '|' '/' | cut -c1-120)
  echo "step $n: $name: $result${figure:+ ($figure)}"
  echo "| $name | $result | $figure | ${GOALS[$((n - 1))]} |" >>"$REPORT"
}

# The tests as CTest knows them, rooted here instead of where the bundle was built, on CUDA.
run_tests() {
  QV_DEVICE=cuda python3 - "$B/tests.json" "$(cat "$B/source-root")" "$ROOT" <<'PY'
import json, os, subprocess, sys
manifest, old, new = sys.argv[1:4]
tests = json.load(open(manifest))["tests"]
failed = 0
# These need CMake (an install) or PyGObject, which a GPU host without GStreamer lacks.
away = {"plugin.gst_native", "plugin.python_rig"}
for t in tests:
    if t["name"] in away:
        print("skip", t["name"], "(needs CMake or PyGObject)"); continue
    env = dict(os.environ)
    cwd = None
    for p in t.get("properties", []):
        if p["name"] == "ENVIRONMENT":
            for kv in p["value"]:
                k, _, v = kv.partition("=")
                env[k] = v.replace(old, new)
        if p["name"] == "WORKING_DIRECTORY":
            cwd = p["value"].replace(old, new)
    cmd = [c.replace(old, new) for c in t.get("command", [])]
    if not cmd or not os.path.exists(cmd[0]) and "/" in cmd[0]:
        print("skip", t["name"], "(not in the bundle)"); continue
    rc = subprocess.call(cmd, env=env, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT)
    print(("pass" if rc == 0 else "FAIL"), t["name"]); failed += rc != 0
print(f"tests: {len(tests) - failed} of {len(tests)} passed on CUDA")
sys.exit(1 if failed else 0)
PY
}

sanitize() {
  local rc=0
  for t in "$B"/tests/cuda/qv_cuda_test_* "$B"/tests/imgproc/qv_imgproc_test_*; do
    [ -x "$t" ] || continue
    QV_DEVICE=cuda compute-sanitizer --tool memcheck --error-exitcode 1 "$t" || rc=1
  done
  QV_DEVICE=cuda compute-sanitizer --tool racecheck --error-exitcode 1 \
    "$B"/tests/imgproc/qv_imgproc_test_operations --gtest_filter='*MinMax*' || rc=1
  QV_DEVICE=cuda GST_PLUGIN_PATH="$B/plugin" compute-sanitizer --tool racecheck --error-exitcode 1 \
    "$B"/tests/plugin/qv_plugin_test_mix --gtest_filter='*Wall*' || rc=1
  echo "sanitizers: $([ $rc -eq 0 ] && echo clean || echo reports)"
  return $rc
}

display() {
  qv_start_xvfb :99 && export DISPLAY=:99 __GLX_VENDOR_LIBRARY_NAME=nvidia
  GST_PLUGIN_PATH="$B/plugin" "$B"/bench/qvbench-display && \
    GST_PLUGIN_PATH="$B/plugin" QV_DEVICE=cuda "$B"/tests/plugin/qv_plugin_test_display
}

export GST_PLUGIN_PATH="$B/plugin" B ROOT OUT
export -f run_tests sanitize display qv_start_xvfb
step 1 test-gpu 200 '^tests:' run_tests
step 2 compute-sanitizer 120 '^sanitizers:' sanitize
step 3 qvbench-kernels 60 '^Debayer' "$B"/bench/qvbench-kernels
step 4 qvbench 120 '^rig:' "$B"/bench/qvbench --csv "$OUT/qvbench.csv"
step 5 display 60 'hand-over|shown' display
step 6 jpeg 60 '^jpeg:' "$B"/bench/qvbench jpeg
echo "gpu-check: $(($(date +%s) - START)) s; report $REPORT"
