// The selector's camera tours go by the count of selector calls in the whole process, from 0 at
// load, not by the moment of the request. This suite runs in a process of its own, so that the
// count is known: every frame of it is one call.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <map>

#include "MixerRig.h"

using namespace QvTest;

namespace {

const char* kGray25 = "video/x-raw,format=GRAY8,width=16,height=8,framerate=25/1";

int ExpectedCamera(int iRequest, int iCall) {
  switch (iRequest) {
    case 0:
    case 1:
    case 2:
    case 3:
      return iRequest;
    case 7:
      return (iCall / 250) % 4;
    case 8:
      return (iCall / 1000) % 4;
    default:
      return (iCall / 50) % 4;
  }
}

TEST(SelectorTour, CamerasFollowTheProcessWideCallCount) {
  // Each run: four pads hold a buffer over [0,20 s) and keep one at 20 s, so the mixer makes
  // 500 frames in a burst and a 501st with the 20 s buffers.
  int iCall = 0;
  for (int iRequest : {7, 8, 6, -1, 2}) {
    CMixerRig xRig;
    xRig.Play();
    std::vector<CMixInput*> xIns = xRig.AddInputs(4);
    EXPECT_TRUE(xRig.SelectCamera(iRequest));
    std::map<const GstBuffer*, int> xCamera;
    for (int i = 0; i < 4; ++i) {
      xIns[i]->Caps(kGray25);
      xIns[i]->Push(TimedBuffer(0, 20 * GST_SECOND));
      xCamera[xIns[i]->Last()] = i;
      xIns[i]->Push(TimedBuffer(20 * GST_SECOND, 40 * kMs));
      xCamera[xIns[i]->Last()] = i;
      xIns[i]->Eos();
    }
    ASSERT_TRUE(xRig.Out().WaitForEos(60000));
    const std::vector<SOutBuffer> xOut = xRig.Out().Buffers();
    ASSERT_EQ(501u, xOut.size());
    int iWrong = 0, iFirstWrong = -1;
    for (const SOutBuffer& x : xOut) {
      ++iCall;
      auto it = xCamera.find(x.pxIdentity);
      const int iGot = it == xCamera.end() ? -1 : it->second;
      if (iGot != ExpectedCamera(iRequest, iCall) && iWrong++ == 0) iFirstWrong = iCall;
    }
    EXPECT_EQ(0, iWrong) << "request " << iRequest << ", first wrong at call " << iFirstWrong;
  }
}

}  // namespace
