#!/bin/sh
# A gray reference whose header claims 100000x100000 pixels over 64x48 of data: GStreamer's own
# tools make the normalize element all the same, print the cause, and its frames fail on the bus.
set -eu
P=$(mktemp -d)
trap 'rm -rf "$P"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
python3 -c "
import struct, sys, zlib
def chunk(t, d): return struct.pack('>I', len(d)) + t + d + struct.pack('>I', zlib.crc32(t + d))
sys.stdout.buffer.write(b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', 100000,
    100000, 16, 6, 0, 0, 0)) + chunk(b'IDAT', zlib.compress(bytes(48 * 513))) + chunk(b'IEND', b''))
" >"$P/bomb.png"
export QV_GRAY_REFERENCE="$P/bomb.png"
cause="Error reading PNG file '$P/bomb.png': header asks for 100000x100000 pixels"

gst-inspect-1.0 qvcudanormalize >"$P/log" 2>&1 || fail "gst-inspect-1.0 ended with $?: $(tail -3 "$P/log")"
grep -q "$cause" "$P/log" || fail "no cause printed: $(cat "$P/log")"

timeout 60 gst-launch-1.0 videotestsrc num-buffers=1 ! video/x-bayer,format=grbg,width=64,height=48 \
  ! qvcudaupload ! qvcudadebayer ! qvcudanormalize name=norm ! fakesink async=false >"$P/log" 2>&1 \
  && fail "a frame passed without reference"
grep -q "from element /GstPipeline:pipeline0/GstQvCudaNormalize:norm: no gray reference image: '$P/bomb.png'" \
  "$P/log" || fail "no element error on the bus: $(cat "$P/log")"
echo "a lying reference header fails the normalize element's frames, not the process"
