#pragma once
// Synthetic camera frames and the pinned-pool plumbing shared by the demo and the benchmark.
#include <gst/gst.h>

#include <cstdint>
#include <vector>

namespace QvTools {

// A colour test scene, shifted by iFrame pixels, as the rig's sensor records it, mosaicked in
// GRBG order: even rows G R G R ..., odd rows B G B G ... Scene 0 is eight bars over a gray
// ramp; scenes 1 to 5 (checkerboard, rings, bands, diagonal stripes, colour ramps) tell the
// six cameras of the demo apart.
std::vector<uint8_t> MakeGrbgScene(int iWidth, int iHeight, int iFrame, int iScene = 0);

// Asks the element's sink pad for an allocation answer for the caps and returns the active
// pool it proposes (a pinned "MySysMem" pool for the upload element), or null.
GstBufferPool* ProposedPool(GstElement* pxElement, GstCaps* pxCaps);

// One buffer of the pool the element proposes for the caps, asked for every 10 ms up to iTries
// times while the element is not negotiated yet; null if none came. The pool itself goes.
GstBuffer* BufferOfProposedPool(GstElement* pxElement, GstCaps* pxCaps, int iTries);

}  // namespace QvTools
