// The selector's camera tours go by the count of selector calls in the whole process, from 0 at
// load: in a process of its own every frame here is one call.
#include <gtest/gtest.h>

#include <map>

#include "MixerRig.h"

using namespace QvTest;

TEST(SelectorTour, CamerasFollowTheProcessWideCallCount) {
  // Each run: four pads hold a buffer over [0,20 s) and keep one at 20 s, so the mixer makes
  // 500 frames in a burst and a 501st with the 20 s buffers. Requests 0 to 3 fix a camera;
  // 7 tours every 250 calls, 8 every 1000, any other every 50.
  int iCall = 0;
  for (int iRequest : {7, 8, 6, -1, 2}) {
    const int iPeriod = iRequest == 7 ? 250 : iRequest == 8 ? 1000 : 50;
    CMixerRig xRig;
    xRig.Play();
    std::vector<CMixInput*> xIns = xRig.AddInputs(4);
    EXPECT_TRUE(xRig.SelectCamera(iRequest));
    std::map<const GstBuffer*, int> xCamera;
    for (int i = 0; i < 4; ++i) {
      xIns[i]->Caps("video/x-raw,format=GRAY8,width=16,height=8,framerate=25/1");
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
      const int iWant = iRequest >= 0 && iRequest <= 3 ? iRequest : (iCall / iPeriod) % 4;
      auto it = xCamera.find(x.pxIdentity);
      if ((it == xCamera.end() ? -1 : it->second) != iWant && iWrong++ == 0) iFirstWrong = iCall;
    }
    EXPECT_EQ(0, iWrong) << "request " << iRequest << ", first wrong at call " << iFirstWrong;
  }
}
