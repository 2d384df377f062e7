#!/usr/bin/env python3
"""A camera pipeline from Python: the frames stay on the device through upload, debayer and
scale, and qvcudadownload brings each one back into an appsink as a numpy array.

Needs Debian's python3-gi, python3-gst-1.0 and python3-numpy, and both plugins of this build on
GST_PLUGIN_PATH (qvcudadownload has its factory in the companion plugin qvvideoprochost):

    GST_PLUGIN_PATH=$PWD/build/plugin python3 examples/rig.py --frames 5

videotestsrc stands in for the camera; it writes its pattern as a GRBG mosaic, as the rig's
sensors deliver it.
"""
import argparse
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstApp", "1.0")
gi.require_version("GstVideo", "1.0")
from gi.repository import Gst, GstApp, GstVideo  # noqa: E402,F401  (GstApp: appsink's methods)
import numpy as np  # noqa: E402


def frame_array(sample):
    """The RGBA frame of a sample as an array of height x width x 4 bytes (a copy)."""
    info = GstVideo.VideoInfo.new_from_caps(sample.get_caps())
    buffer = sample.get_buffer()
    ok, mapped = buffer.map(Gst.MapFlags.READ)
    if not ok:
        raise RuntimeError("cannot map the downloaded frame")
    try:
        stride = info.stride[0]
        rows = np.frombuffer(mapped.data, dtype=np.uint8, count=stride * info.height)
        return rows.reshape(info.height, stride)[:, : info.width * 4].reshape(
            info.height, info.width, 4).copy()
    finally:
        buffer.unmap(mapped)


def main():
    parser = argparse.ArgumentParser(description="Mean colour of camera frames downloaded "
                                     "from the device")
    parser.add_argument("--frames", type=int, default=10)
    parser.add_argument("--width", type=int, default=1920)
    parser.add_argument("--height", type=int, default=1080)
    args = parser.parse_args()

    Gst.init(None)
    pipeline = Gst.parse_launch(
        f"videotestsrc num-buffers={args.frames} ! "
        f"video/x-bayer,format=grbg,width={args.width},height={args.height},framerate=30/1 ! "
        "qvcudaupload ! qvcudadebayer ! qvcudascale ! qvcudadownload ! "
        "video/x-raw,format=RGBA ! appsink name=sink sync=false")
    sink = pipeline.get_by_name("sink")
    pipeline.set_state(Gst.State.PLAYING)
    count = 0
    while True:
        # None at the end of the stream, or when an element failed.
        sample = sink.try_pull_sample(10 * Gst.SECOND)
        if sample is None:
            break
        frame = frame_array(sample)
        red, green, blue, _ = frame.reshape(-1, 4).mean(axis=0)
        print(f"frame {count}: {frame.shape[1]}x{frame.shape[0]} RGBA, mean colour "
              f"R {red:.1f} G {green:.1f} B {blue:.1f}", flush=True)
        count += 1
    # A failed frame puts its element and cause on the bus.
    message = pipeline.get_bus().pop_filtered(Gst.MessageType.ERROR)
    pipeline.set_state(Gst.State.NULL)
    if message:
        error, _ = message.parse_error()
        print(f"error from {message.src.get_name()}: {error.message}", file=sys.stderr)
        return 1
    return 0 if count == args.frames else 1


if __name__ == "__main__":
    sys.exit(main())
