#!/bin/sh
# GStreamer's own tools against the plugins as installed: `cmake --install` into a temporary
# prefix; a fresh registry holds them beside Debian's good and bad plugins; gst-inspect-1.0 and
# gst-launch-1.0 find every element there, a failing frame names its element and cause on the
# bus, full-range I420 keeps its levels through videoconvert, and a host application builds
# against qvvideoproc.pc.
set -eu
P=$(mktemp -d)
trap 'rm -rf "$P"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
"${CMAKE:-cmake}" --install "$1" --prefix "$P" >/dev/null
export GST_PLUGIN_PATH="$(dirname "$(find "$P" -name libgstqvvideoprochost.so)")"
export GST_REGISTRY_1_0="$P/registry.bin" GST_DEBUG_NO_COLOR=1
[ -x "$P/bin/qvproc-launch" ] && [ -x "$P/bin/qvproc-demo" ] || fail "tools not in bin/"
# The first scan of a fresh registry loads ours beside Debian's good and bad plugins in one
# process: no type name of ours may clash with theirs (bayer2rgb's GstBayer2RGB).
GST_REGISTRY_FORK=no gst-inspect-1.0 bayer >"$P/log" 2>&1 || fail "no bayer plugin: $(cat "$P/log")"
! grep -E "CRITICAL|WARNING|cannot register" "$P/log" || fail "registry scan: $(cat "$P/log")"
for e in bayer2rgb rgb2bayer videobox; do
  gst-inspect-1.0 "$e" >/dev/null 2>&1 || fail "gst-inspect-1.0 $e"
done
timeout 60 gst-launch-1.0 -q videotestsrc num-buffers=1 ! video/x-bayer,width=8,height=8 \
  ! bayer2rgb ! fakesink >"$P/log" 2>&1 || fail "bayer2rgb: $(cat "$P/log")"
D="$(dirname "$0")/../../docs/decisions.md"
for e in qvcudaupload qvcudadebayer qvcudascale qvcudamix qvcudayuv qvcudanormalize \
    qvcudadownload qvbayer2rgb qvrgb2bayer qvbayer2lum qvautoadapt qvcudajpegsink qvcudasink; do
  gst-inspect-1.0 "$e" >"$P/log" 2>&1 || fail "gst-inspect-1.0 $e"
  # Each element's long name stands, with the text it replaces, in docs/decisions.md.
  n=$(sed -n 's/^  Long-name  *//p' "$P/log")
  grep -F "\`$e\`" "$D" | grep -qF "\"$n\"" || fail "$e: long name \"$n\" not in docs/decisions.md"
done
[ "$n" = "CUDA Sink" ] && gst-inspect-1.0 qvautoadapt | grep -q "Long-name *qv auto exposure and gain$" \
  || fail "long names"
[ "$(gst-inspect-1.0 --gst-debug-help | grep -c '^qv')" -ge 11 ] || fail "debug categories"

# gst-launch-1.0 of GStreamer 1.22 sometimes stays in its loop after an error during preroll
# (plain identity error-after=1 does the same); a sink that does not preroll avoids it.
timeout 60 gst-launch-1.0 videotestsrc num-buffers=1 ! video/x-raw,format=GRAY8,width=8,height=8 \
  ! qvcudadebayer name=deb ! fakesink async=false >"$P/log" 2>&1 && fail "a host buffer passed qvcudadebayer"
grep -q "from element /GstPipeline:pipeline0/GstQvCudaDebayer:deb: buffer holds no device image" \
  "$P/log" || fail "no element error on the bus: $(cat "$P/log")"

# The wall's frames are the whole mosaic: a downstream size of its own is refused at negotiation
# with the cause on the bus, while the selector lets downstream choose the size.
wall() {
  timeout 60 gst-launch-1.0 videotestsrc num-buffers=2 ! video/x-raw,format=GRAY8,width=64,height=48 \
    ! qvcudaupload ! qvcudamix type=$1 ! "video/x-raw,width=$2,height=$3" ! fakesink async=false \
    >"$P/log" 2>&1
}
wall videowall 3840 2676 || fail "wall at its size: $(cat "$P/log")"
wall selector 640 480 || fail "selector at a size of downstream's: $(cat "$P/log")"
wall videowall 640 480 && fail "the wall went out at 640x480"
grep -q "Downstream cannot take the video wall's size of 3840x2676" "$P/log" \
  || fail "no negotiation error for the wall: $(cat "$P/log")"

# The first three channels of pixel N of a frame of C channels of B bytes each, as numbers.
px() { od -An -tu"$3" -j $(($2 * $3 * $4)) -N $((3 * $3)) "$1" | xargs; }

# bayer-order: a scene that is full at the red sites of each order and 0 elsewhere comes out
# exactly (255, 0, 0) inside the image when upload reads it in that order, named by the
# property or taken from the caps (the filter's other terms cancel; red clamps after its gain).
for o in grbg rggb bggr gbrg; do
  python3 -c "import sys; r = {'grbg': (1, 0), 'rggb': (0, 0), 'bggr': (1, 1), 'gbrg': (0, 1)}['$o']
sys.stdout.buffer.write(bytes(255 if (x % 2, y % 2) == r else 0 for y in range(8) for x in range(8)))" \
    >"$P/red.raw"
  for p in "$o" caps; do
    timeout 60 gst-launch-1.0 -q filesrc location="$P/red.raw" blocksize=64 \
      ! video/x-bayer,format=$o,width=8,height=8,framerate=30/1 ! qvcudaupload bayer-order=$p \
      ! qvcudadebayer ! qvcudadownload ! filesink location="$P/rgba.raw" >"$P/log" 2>&1
    rgb=$(px "$P/rgba.raw" $((3 * 8 + 3)) 1 4)
    [ "$rgb" = "255 0 0" ] || fail "$o read as $p: $rgb $(cat "$P/log")"
  done
done

# 16-bit words: a 10-bit sensor's 1023 fills the range after the shift on upload, and the frame
# comes back as RGBA64_LE; red sites of GRBG at 1023 (10 bits) or 65535 (GRAY16_LE) read red.
for caps in "video/x-bayer,format=grbg10le 1023" "video/x-raw,format=GRAY16_LE 65535"; do
  set -- $caps
  python3 -c "import sys; sys.stdout.buffer.write(b''.join(($2 if (x % 2, y % 2) == (1, 0) else 0) \
    .to_bytes(2, 'little') for y in range(8) for x in range(8)))" >"$P/red16.raw"
  timeout 60 gst-launch-1.0 -q filesrc location="$P/red16.raw" blocksize=128 \
    ! "$1,width=8,height=8,framerate=30/1" ! qvcudaupload ! qvcudadebayer ! qvcudadownload \
    ! video/x-raw,format=RGBA64_LE ! filesink location="$P/rgba64.raw" >"$P/log" 2>&1
  rgb=$(px "$P/rgba64.raw" $((3 * 8 + 3)) 2 4)
  [ "$rgb" = "65535 0 0" ] || fail "$caps: $rgb $(cat "$P/log")"
done
# The last scene (GRAY16_LE, 65535 at the red sites) demosaiced, on through the elements given.
red16() {
  timeout 60 gst-launch-1.0 -q filesrc location="$P/red16.raw" blocksize=128 \
    ! video/x-raw,format=GRAY16_LE,width=8,height=8,framerate=30/1 ! qvcudaupload \
    ! qvcudadebayer ! "$@" >"$P/log" 2>&1
}
# ... odd sizes too: GStreamer's GRAY16_LE rows of 7 samples are padded to 16 bytes.
timeout 60 gst-launch-1.0 -q videotestsrc num-buffers=2 ! video/x-raw,format=GRAY16_LE,width=7,height=5 \
  ! qvcudaupload ! qvcudadebayer ! qvcudadownload ! video/x-raw,format=RGBA64_LE \
  ! filesink location="$P/odd.raw" >"$P/log" 2>&1 && [ "$(stat -c %s "$P/odd.raw")" -eq 560 ] \
  || fail "16-bit 7x5: $(cat "$P/log")"
# ... the scale keeps the 16 bits: 3840x1784 RGBA64_LE, still red ...
red16 qvcudascale ! qvcudadownload ! video/x-raw,format=RGBA64_LE ! filesink location="$P/rgba64.raw"
set -- $(px "$P/rgba64.raw" $((900 * 3840 + 1900)) 2 4)
[ "$(stat -c %s "$P/rgba64.raw")" -eq $((3840 * 1784 * 8)) ] && [ "$1 $2" = "65535 0" ] \
  || fail "16-bit scale: $* $(stat -c %s "$P/rgba64.raw")"
# ... the window shows 16-bit colour (a 16-bit normalized texture) ...
if command -v xvfb-run >/dev/null; then
  timeout 60 xvfb-run -a gst-launch-1.0 -q filesrc location="$P/red16.raw" blocksize=128 \
    ! video/x-raw,format=GRAY16_LE,width=8,height=8,framerate=30/1 ! qvcudaupload ! qvcudadebayer \
    ! qvcudasink >"$P/log" 2>&1 || fail "16-bit window: $(cat "$P/log")"
fi
# ... the JPEG sink narrows it to 8 bits and the file decodes red ...
red16 qvcudajpegsink location="$P/j%05d.jpg"
gst-launch-1.0 -q filesrc location="$P/j00001.jpg" ! jpegdec ! videoconvert ! video/x-raw,format=RGB \
  ! filesink location="$P/dec.rgb"
set -- $(px "$P/dec.rgb" $((3 * 8 + 3)) 1 3)
[ "$1" -ge 200 ] && [ "$2" -le 40 ] && [ "$3" -le 40 ] || fail "16-bit JPEG: $* $(cat "$P/log")"
# ... and so does the flat-field normalizer, with a white reference.
gst-launch-1.0 -q videotestsrc num-buffers=1 pattern=white ! video/x-raw,format=RGBA,width=8,height=8 \
  ! pngenc ! filesink location="$P/flat8.png"
red16 qvcudanormalize gray="$P/flat8.png" ! qvcudadownload ! video/x-raw,format=RGBA64_LE \
  ! filesink location="$P/rgba64.raw"
set -- $(px "$P/rgba64.raw" $((3 * 8 + 3)) 2 4)
[ "$1 $2" = "65535 0" ] || fail "16-bit normalize: $*"

# The wall keeps its cameras' order: a red scene from an RGGB camera stays red in its tile.
python3 -c "import sys; sys.stdout.buffer.write(bytes(255 if x % 2 == 0 and y % 2 == 0 else 0 \
  for y in range(1338) for x in range(1280)))" >"$P/red.raw"
timeout 60 gst-launch-1.0 -q qvcudamix name=m type=videowall ! qvcudadebayer ! qvcudadownload \
  ! filesink location="$P/rgba.raw" filesrc location="$P/red.raw" \
  ! rawvideoparse format=gray8 width=1280 height=1338 ! qvcudaupload bayer-order=rggb ! m. \
  >"$P/log" 2>&1
rgb=$(px "$P/rgba.raw" $((100 * 3840 + 100)) 1 4)
[ "$rgb" = "255 0 0" ] || fail "wall of rggb: $rgb $(cat "$P/log")"

# A 16-bit wall: tiles of 2-byte samples, 1280 of them wide; a GRBG red scene stays red.
python3 -c "import sys; r = (b'\\0\\0\\xff\\xff' * 640, b'\\0' * 2560)
sys.stdout.buffer.write(b''.join(r[y % 2] for y in range(1338)))" >"$P/red16w.raw"
timeout 60 gst-launch-1.0 -q qvcudamix name=m type=videowall ! qvcudadebayer ! qvcudadownload \
  ! video/x-raw,format=RGBA64_LE ! filesink location="$P/rgba.raw" filesrc location="$P/red16w.raw" \
  ! rawvideoparse format=gray16-le width=1280 height=1338 ! qvcudaupload ! m. >"$P/log" 2>&1
rgb=$(px "$P/rgba.raw" $((100 * 3840 + 100)) 2 4)
[ "$rgb" = "65535 0 0" ] || fail "16-bit wall: $rgb $(cat "$P/log")"

# Flat grays near white and near black as the sensor sees them (red at 0.7 and blue at 0.88 of
# green): the centre pixel keeps its level within 2 only where videoconvert reads full range.
for v in 250 50; do
  python3 -c "import sys; sys.stdout.buffer.write(bytes([$v, $v * 7 // 10] * 8 + \
    [$v * 88 // 100, $v] * 8) * 8)" >"$P/in.raw"
  timeout 60 gst-launch-1.0 -q filesrc location="$P/in.raw" blocksize=256 \
    ! rawvideoparse format=gray8 width=16 height=16 ! qvcudaupload ! qvcudadebayer ! qvcudayuv \
    ! qvcudadownload ! videoconvert ! video/x-raw,format=RGBA ! filesink location="$P/out.raw"
  rgb=$(od -An -tu1 -j $(((8 * 16 + 8) * 4)) -N 3 "$P/out.raw")
  for c in $rgb; do [ $((c - v)) -le 2 ] && [ $((v - c)) -le 2 ] || fail "$v came back as $rgb"; done
done

# qvproc-launch as gst-launch-1.0: an unknown element ends the run before anything plays, a
# failed frame ends with status 1 and the cause (host bytes are no device image), Ctrl-C stops a
# live pipeline with status 0, -v prints caps unescaped and never "caps = NULL"; --help names
# every element. qvproc-demo lists its options, and refuses one it does not know.
L="$P/bin/qvproc-launch"
"$L" fakesrc num-buffers=1 ! nosuchelement ! fakesink >"$P/log" 2>&1 && fail "nosuchelement ran"
grep -q 'no element "nosuchelement"' "$P/log" && ! grep -q PLAYING "$P/log" \
  || fail "unknown element: $(cat "$P/log")"
head -c 128 /dev/zero >"$P/in.rgba"
rc=0; timeout 60 "$L" filesrc location="$P/in.rgba" blocksize=128 \
  ! video/x-raw,format=RGBA,width=8,height=4,framerate=30/1 ! qvcudadownload \
  ! fakesink async=false >"$P/out" 2>"$P/log" || rc=$?
[ $rc -eq 1 ] && grep -q "exception catched: " "$P/out" && grep -q "^ERROR" "$P/log" \
  || fail "a failed frame ended with $rc: $(cat "$P/out" "$P/log")"
rc=0; timeout --preserve-status -s INT 3 "$L" videotestsrc is-live=true ! fakesink >"$P/out" \
  2>"$P/log" || rc=$?
[ $rc -eq 0 ] && grep -q "Interrupt: Stopping pipeline" "$P/out" && ! grep -q CRITICAL "$P/log" \
  || fail "Ctrl-C ended with $rc: $(cat "$P/out" "$P/log")"
timeout 60 "$L" -v videotestsrc num-buffers=1 ! video/x-bayer,format=grbg,width=8,height=8 \
  ! fakesink >"$P/out" 2>&1 || fail "-v: $(cat "$P/out")"
grep -q '^/GstPipeline:pipeline0/GstFakeSink:fakesink0.GstPad:sink: caps = video/x-bayer, format=(string)grbg, width=(int)8' \
  "$P/out" && ! grep -q 'caps = NULL' "$P/out" || fail "-v: $(cat "$P/out")"
"$L" --help | grep -q qvcudajpegsink || fail "qvproc-launch --help: $("$L" --help)"
"$P/bin/qvproc-demo" --help >"$P/out" 2>&1 && grep -q -- "--frames=N" "$P/out" \
  || fail "qvproc-demo --help: $(cat "$P/out")"
rc=0; "$P/bin/qvproc-demo" --nosuch >"$P/out" 2>&1 || rc=$?
[ $rc -eq 2 ] && grep -q "nosuch" "$P/out" && ! grep -q backend "$P/out" \
  || fail "qvproc-demo --nosuch ended with $rc: $(cat "$P/out")"

# The six-camera rig as bench/README.md shows it, on small frames: it runs to its end, and every
# queue holds at most two frames (a device-image buffer reports 1 byte, so no byte limit holds).
rig=$(sed -n '/^gst-launch-1.0 qvcudamix name=m/,/^```/p' "$(dirname "$0")/../../bench/README.md" \
  | grep -v '^```' | tr -d '\\\n' \
  | sed 's/width=3840,height=2160/width=64,height=48/g; s/videotestsrc /videotestsrc num-buffers=3 /g')
[ "$(echo "$rig" | grep -o 'queue' | wc -l)" -eq 6 ] \
  && [ "$(echo "$rig" | grep -o 'queue max-size-buffers=2 ' | wc -l)" -eq 6 ] || fail "rig: $rig"
QV_MESSAGES=off timeout 120 sh -c "$rig -q" >"$P/log" 2>&1 || fail "rig: $(cat "$P/log")"

# Operator texts follow QV_MESSAGES, so that video written to standard output stays video.
QV_MESSAGES=stderr timeout 60 gst-launch-1.0 -q videotestsrc num-buffers=3 \
  ! video/x-raw,format=GRAY8,width=64,height=48 ! qvcudaupload ! qvcudadebayer ! qvcudadownload \
  ! fdsink fd=1 >"$P/out.raw" 2>"$P/log"
[ "$(wc -c <"$P/out.raw")" -eq 36864 ] && grep -q "^download format: " "$P/log" \
  || fail "QV_MESSAGES=stderr: $(wc -c <"$P/out.raw") bytes on standard output"

export PKG_CONFIG_PATH="$(dirname "$(find "$P" -name qvvideoproc.pc)")"
printf '#include "gstqvHostElements.h"\n#include "QvDeviceImage2D.h"\nint main(int c, char** v) {
  gst_init(&c, &v);\n  return !qv_register_host_elements();\n}\n' >"$P/app.cpp"
g++ -std=c++17 "$P/app.cpp" -o "$P/app" $(pkg-config --cflags --libs qvvideoproc) \
  || fail "a host application does not build against qvvideoproc.pc"
"$P/app" || fail "the host application cannot register the elements"
echo "installed plugins, tools and headers work with GStreamer's tools"
