#!/usr/bin/env bash
# Plants known one-line bugs in the sources, one at a time, rebuilds, and runs the tests that
# could see each: a suite that stays green on a planted bug has a hole. Run by hand from the
# project root of a configured build (it rebuilds after every change, so it is slow; not for CI):
#
#   scripts/fault-check.sh [--out FILE] [--dry-run] [BUILD_DIR] [ID...]
#
# BUILD_DIR defaults to build; IDs pick faults from the table (all by default); JOBS sets the
# build's parallelism (default 1); --dry-run only checks that every fault still applies. Each
# source is restored with git after its fault, and on an interrupt, so the files of the table
# must have no local changes. Per-fault build and test logs go to BUILD_DIR/fault-check.
set -euo pipefail

# Tests that can see a fault: those of its own layer and of every layer above it.
CORE='.'
CUDA='^(cuda|imgproc|plugin)\.'
IMGPROC='^(imgproc|plugin)\.'
PLUGIN='^plugin\.'

IDS=() DESCS=() FILES=() EDITS=() TESTS=()
fault() { IDS+=("$1") DESCS+=("$2") FILES+=("$3") EDITS+=("$4") TESTS+=("$5"); }

S=src/Qv.Cuda/QvSampling.h
P=src/qvproc_plugin
M=$P/mixer/gstqvCudaMix.cpp
fault 1 "row bytes count channel bytes only" src/Qv.Core/QvImageFormat.cpp \
  's/return static_cast<uint64_t>(iWidth) \* uBytesPerPixel;/return static_cast<uint64_t>(iWidth) * static_cast<uint64_t>(GetBytesPerChannel());/' "$CORE"
fault 2 "16-bit PNG samples read in file byte order" src/Qv.Core/FileIO.cpp \
  's/if (iBitDepth == 16 && IsLittleEndianHost())/if (iBitDepth == 16 \&\& !IsLittleEndianHost())/' "$CORE"
fault 3 "storing rounds instead of truncating" $S \
  's/return static_cast<typename T::Element>(s);/return static_cast<typename T::Element>(s + 0.5f);/' "$CUDA"
fault 4 "storing clamp lets NaN through (stores 0, not M)" $S \
  's/s = fminf(fM, s);/s = s > fM ? fM : s;/' "$CUDA"
fault 5 "texel clamp off by one at the right edge" $S \
  's/(ix >= xDesc.xFormat.iWidth ?/(ix > xDesc.xFormat.iWidth ?/' "$CUDA"
fault 6 "device cache hands out the next larger block" src/Qv.Cuda/QvDeviceMMU.cpp \
  's/auto it = m_xFree.find(xKey);/auto it = m_xFree.lower_bound(xKey);/' "$CUDA"
fault 7 "CUDA exception text says 'device ID'" src/Qv.Cuda/QvCudaException.cpp \
  "s/\"', Device ID: \"/\"', device ID: \"/" "$CUDA"
fault 8 "BayerGR read with the phases of BayerRG" src/Qv.Cuda.ImageProcessing/DemosaicKernel.h \
  's/return (1 - ix) + 2 \* iy;/return ix + 2 * iy;/' "$IMGPROC"
fault 9 "YUV: V's green coefficient transposed" src/Qv.Cuda.ImageProcessing/QvCudaCompYUV.cu \
  's/-0\.515f \* c\.y/-0.551f * c.y/' "$IMGPROC"
fault 10 "10-bit words scaled by 1024, not 1023" src/Qv.Cuda.ImageProcessing/QvCudaCompNormalize.cu \
  's/? 1023\.0f : 4095\.0f/? 1024.0f : 4095.0f/' "$IMGPROC"
fault 11 "Gauss taps normalized by their count" src/Qv.Cuda.ImageProcessing/QvCudaCompConvolve.cu \
  's|const float fNorm = 1\.0f / fSum;|const float fNorm = 1.0f / static_cast<float>(2 * iRadius + 1);|' "$IMGPROC"
fault 12 "single-sample shrink half a pixel off" src/Qv.Cuda.ImageProcessing/ConvolveKernels.h \
  's/v = Fetch<T>(xSource, sx + 0\.5f, sy + 0\.5f);/v = Fetch<T>(xSource, sx, sy);/' "$IMGPROC"
fault 13 "blue gain 0.88 instead of 1 / 0.88" $P/transform/gstqvCudaDebayer.cpp \
  's/kBlueGain = 1\.1363636f;/kBlueGain = 0.88f;/' "$PLUGIN"
fault 14 "bayer2rgb divides only heights above the largest" $P/transform/bayer2rgb.cpp \
  's/if (iHeight < iMaxHeight) return iHeight;/if (iHeight <= iMaxHeight) return iHeight;/' "$PLUGIN"
fault 15 "mixer interval end truncated, not rounded" $M \
  's/gst_util_uint64_scale_round(self->nframes + 1,/gst_util_uint64_scale(self->nframes + 1,/' "$PLUGIN"
fault 16 "mixer: buffer ending at the output start kept" $M \
  's/if (output_start >= pxCol->end_time) {/if (output_start > pxCol->end_time) {/' "$PLUGIN"
fault 17 "selector tour 7 changes camera every 240 calls" $P/mixer/gstqvCudaMixModes.cpp \
  's|iCamera = (iCount / 250) % iPads;|iCamera = (iCount / 240) % iPads;|' "$PLUGIN"
fault 18 "QoS: early report before 0 not clamped" $M \
  's/self->earliest_time = uEarly > timestamp ? 0 : timestamp - uEarly;/self->earliest_time = timestamp - uEarly;/' "$PLUGIN"
fault 19 "RGB pixel type mapped to GStreamer BGR" $P/common/gstUtil.cpp \
  's/return GST_VIDEO_FORMAT_RGB;/return GST_VIDEO_FORMAT_BGR;/' "$PLUGIN"
fault 20 "frame copy steps rows by the image row" $P/common/gstUtil.cpp \
  's/std::memcpy(pDst + static_cast<uint64_t>(y) \* iStride,/std::memcpy(pDst + static_cast<uint64_t>(y) * uRow,/' "$PLUGIN"
fault 21 "frame copy accepts rows shorter than the image's" $P/common/gstUtil.cpp \
  's/if (!pDst || iStride < 0 || static_cast<uint64_t>(iStride) < uRow)/if (!pDst || iStride < 0)/' "$PLUGIN"
fault 22 "download leaves its buffer at twice a frame" $P/transform/gstqvCudaDownload.cpp \
  's/^  gst_buffer_set_size(\*outbuf, .*$//' "$PLUGIN"

OUT="" BUILD="" WANT=() DRY=0
while (($#)); do
  case "$1" in
    --out) OUT="$2"; shift 2 ;;
    --dry-run) DRY=1; shift ;;
    -h | --help) sed -n '2,11p' "$0"; exit 0 ;;
    *) if [[ -z "$BUILD" && ${#WANT[@]} -eq 0 && -d "$1" ]]; then BUILD="$1"; else WANT+=("$1"); fi
       shift ;;
  esac
done
BUILD="${BUILD:-build}"
JOBS="${JOBS:-1}"
[[ -f "$BUILD/CTestTestfile.cmake" ]] || { echo "no configured build in '$BUILD'" >&2; exit 2; }
[[ -d src && -d tests ]] || { echo "run this from the project root" >&2; exit 2; }
((${#WANT[@]})) || WANT=("${IDS[@]}")
LOGS="$BUILD/fault-check"
mkdir -p "$LOGS"

index_of() {
  local i
  for i in "${!IDS[@]}"; do [[ "${IDS[$i]}" == "$1" ]] && { echo "$i"; return 0; }; done
  return 1
}

# Refuse before touching anything: the restore would throw local changes away.
for id in "${WANT[@]}"; do
  i=$(index_of "$id") || { echo "no fault '$id'" >&2; exit 2; }
  git diff --quiet HEAD -- "${FILES[$i]}" || { echo "${FILES[$i]} has local changes" >&2; exit 2; }
done

CURRENT=""
restore() {
  if [[ -n "$CURRENT" ]]; then git checkout -- "$CURRENT"; fi
  CURRENT=""
}
trap 'restore' EXIT
trap 'restore; exit 130' INT TERM

ROWS=() CAUGHT=0 T0=$SECONDS
for id in "${WANT[@]}"; do
  i=$(index_of "$id")
  file="${FILES[$i]}" log="$LOGS/fault-$id.log" t=$SECONDS
  tmp=$(mktemp)
  sed "${EDITS[$i]}" "$file" >"$tmp"
  # Exactly one line must change.
  if [[ $(diff "$file" "$tmp" | grep -c '^[<>]' || true) -ne 2 ]]; then
    rm -f "$tmp"
    echo "fault $id does not apply" >&2
    result="NOT APPLIED"
  elif ((DRY)); then
    rm -f "$tmp"
    result="APPLIES"
  else
    CURRENT="$file"
    cat "$tmp" >"$file" && rm -f "$tmp"
    echo "fault $id: ${DESCS[$i]} ($file)" >&2
    if ! cmake --build "$BUILD" -j"$JOBS" >"$log" 2>&1; then
      result="NO BUILD"
    elif ctest --test-dir "$BUILD" -R "${TESTS[$i]}" --timeout 120 >>"$log" 2>&1; then
      result="MISSED"
      grep -q "No tests were found" "$log" && result="NO TESTS"
    else
      CAUGHT=$((CAUGHT + 1))
      failed=$(sed -n '/tests FAILED/,$ s/^[[:space:]]*[0-9]\+ - \([^ ]*\) .*/\1/p' "$log" | paste -sd, -)
      result="CAUGHT ($failed)"
    fi
    restore
  fi
  echo "  -> $result, $((SECONDS - t)) s" >&2
  ROWS+=("$id | ${DESCS[$i]} | $file | $result")
done

# Leave the build as the sources are.
((DRY)) || cmake --build "$BUILD" -j"$JOBS" >"$LOGS/restore.log" 2>&1 || echo "rebuild failed, see $LOGS/restore.log" >&2

{
  echo "id | description | file | result"
  printf '%s\n' "${ROWS[@]}"
  ((DRY)) || echo "caught $CAUGHT of ${#ROWS[@]} in $((SECONDS - T0)) s"
} | if [[ -n "$OUT" ]]; then tee "$OUT"; else cat; fi
