// The selector's camera tours go by the count of selector calls in the whole process, from 0 at
// load: in a process of its own every frame here is one call.
#include <gtest/gtest.h>

#include "MixerRig.h"

using namespace QvTest;

TEST(SelectorTour, CamerasFollowTheProcessWideCallCount) {
  // Each run: four pads hold a buffer over [0,20 s) and keep one at 20 s, so the mixer makes
  // 500 frames in a burst and a 501st with the 20 s buffers. Requests 0 to 3 fix a camera;
  // 7 tours every 250 calls, 8 every 1000, any other every 50.
  int iCall = 0;
  for (int iRequest : {7, 8, 6, -1, 2}) {
    const int iPeriod = iRequest == 7 ? 250 : iRequest == 8 ? 1000 : 50;
    CMixerRig x(nullptr, std::vector<const char*>(4, kGray25));
    EXPECT_TRUE(x.SelectCamera(iRequest));
    x.Feed(
        "a0@0+20000 b1@0+20000 c2@0+20000 d3@0+20000 a0@20000+40 b1@20000+40 c2@20000+40 "
        "d3@20000+40 a. b. c. d.");
    ASSERT_TRUE(x.WaitForEos(60));
    const std::vector<SOutBuffer> xOut = x.Out();
    ASSERT_EQ(501u, xOut.size());
    int iWrong = 0, iFirstWrong = -1;
    for (const SOutBuffer& xBuf : xOut) {
      ++iCall;
      const int iWant = iRequest >= 0 && iRequest <= 3 ? iRequest : (iCall / iPeriod) % 4;
      const int iGot = xBuf.sLabel.size() == 2 ? xBuf.sLabel[1] - '0' : -1;
      if (iGot != iWant && iWrong++ == 0) iFirstWrong = iCall;
    }
    EXPECT_EQ(0, iWrong) << "request " << iRequest << ", first wrong at call " << iFirstWrong;
  }
}
