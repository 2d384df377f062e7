#!/bin/sh
# Builds, here, what a GPU host runs, and packs it small enough to carry there.
#   scripts/gpu-bundle.sh        (make gpu-bundle; from the repository root)
# Release build without debug info in build-gpu/ for Jetson Orin (sm_87) and Hopper (sm_90),
# with tests and benchmarks and RPATHs relative to each binary. The binaries are stripped and,
# with the list of tests CTest knows (tests.json), packed into build-gpu/gpu-bundle.tar.xz,
# which scripts/gpu-check.sh unpacks on the GPU host. Then .gpu-runtime/ gets GStreamer's
# runtime, Xvfb and Mesa (fetch-runtime.sh --display).
# One command carries at most 64 MiB to a GPU host: carry .gpu-runtime in one call and
# build-gpu/gpu-bundle.tar.xz (with the working tree) in the next; the host keeps what the
# first brought while it stays warm.
set -eu
B=${QV_GPU_BUILD_DIR:-build-gpu}
ARCHS=${QV_GPU_ARCHS:-87-real;90-real}
LIMIT_MIB=60
cmake -S . -B "$B" -DQV_CUDA_ARCHS="$ARCHS" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_BUILD_RPATH_USE_ORIGIN=ON >/dev/null
cmake --build "$B" -j "$(nproc)"

S="$B/stage"
rm -rf "$S"
mkdir -p "$S"
(cd "$B" && find plugin lib tools bench tests -type f ! -path '*/CMakeFiles/*' \
  \( -name '*.so' -o -name '*.so.*' -o -perm -u+x \)) | while read -r f; do
  mkdir -p "$S/$(dirname "$f")"
  strip --strip-unneeded -o "$S/$f" "$B/$f" 2>/dev/null || cp "$B/$f" "$S/$f"
done
ctest --test-dir "$B" --show-only=json-v1 >"$S/tests.json"
pwd >"$S/source-root"
tar -C "$S" -cJf "$B/gpu-bundle.tar.xz" .
rm -rf "$S"
uBytes=$(stat -c %s "$B/gpu-bundle.tar.xz")
echo "gpu-bundle: $B/gpu-bundle.tar.xz, $((uBytes / 1048576)) MiB ($uBytes bytes)"
if [ "$uBytes" -ge $((LIMIT_MIB * 1048576)) ]; then
  echo "gpu-bundle: over $LIMIT_MIB MiB; it would not travel beside the working tree" >&2
  exit 1
fi

F=../shared/gpu-host/fetch-runtime.sh
if [ -x "$F" ]; then
  "$F" --display
else
  echo "gpu-bundle: no $F here; .gpu-runtime/ left as it is" >&2
fi
