#!/bin/sh
# The gray reference is the file that the "gray" property names (QV_GRAY_REFERENCE moves the
# default), read when the element starts: gst-inspect-1.0 reads nothing, a lying header (100000 x
# 100000 pixels over 64x48 of data) or a missing file fails the start with an element error that
# names the file, and a good file chosen by the property normalizes the frames.
set -eu
P=$(mktemp -d)
trap 'rm -rf "$P"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
python3 -c "
import struct, sys, zlib
def chunk(t, d): return struct.pack('>I', len(d)) + t + d + struct.pack('>I', zlib.crc32(t + d))
def png(w, h, depth, kind, rows): return b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB',
    w, h, depth, kind, 0, 0, 0)) + chunk(b'IDAT', zlib.compress(rows)) + chunk(b'IEND', b'')
open('$P/bomb.png', 'wb').write(png(100000, 100000, 16, 6, bytes(48 * 513)))
open('$P/flat.png', 'wb').write(png(64, 48, 8, 0, (b'\0' + bytes([200]) * 64) * 48))
"
export QV_GRAY_REFERENCE="$P/bomb.png"
gst-inspect-1.0 qvcudanormalize >"$P/log" 2>&1 || fail "gst-inspect-1.0 ended with $?: $(tail -3 "$P/log")"
grep -q "Default: \"$P/bomb.png\"" "$P/log" && ! grep -q "Cannot open\|Error reading" "$P/log" \
  || fail "gst-inspect-1.0 read a file or lost the default: $(cat "$P/log")"

run() {
  timeout 60 gst-launch-1.0 videotestsrc num-buffers=2 ! video/x-bayer,format=grbg,width=64,height=48 \
    ! qvcudaupload ! qvcudadebayer ! qvcudanormalize name=norm "$@" ! qvcudadownload \
    ! fakesink async=false >"$P/log" 2>&1
}
for case in "bomb.png|header asks for 100000x100000 pixels" "none.png|Cannot open image file"; do
  f=${case%%|*}
  [ "$f" = bomb.png ] && set -- || set -- gray="$P/$f"
  run "$@" && fail "$f: frames passed without reference"
  grep -q "from element /GstPipeline:pipeline0/GstQvCudaNormalize:norm: cannot read the gray reference image '$P/$f': .*${case#*|}" \
    "$P/log" || fail "$f: no element error naming the file: $(cat "$P/log")"
done
run gray="$P/flat.png" || fail "flat.png: $(cat "$P/log")"
echo "the gray property's file is read at start, and a bad one fails the start on the bus"
