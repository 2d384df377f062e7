// Run with QV_DEVICE=cuda on a machine without a GPU: nothing the mixer needs from the device
// can be had. Each mode must end the frame with an element error and GST_FLOW_ERROR, and go on
// living; on a GPU host there is nothing to test.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "MixerRig.h"
#include "QvDevice.h"
#include "QvException.h"

using namespace QvTest;

namespace {

bool DeviceMissing() {
  try {
    Qv::Device::GetBackend();
    return false;
  } catch (const Qv::IException&) {
    return true;
  }
}

TEST(MixWithoutDevice, EachModeFailsTheFrameWithAnElementError) {
  if (!DeviceMissing()) GTEST_SKIP() << "a device backend is available";
  for (const char* szType : {"selector", "videowall"}) {
    testing::internal::CaptureStdout();
    CMixerRig xRig(szType);
    xRig.Play();
    CMixInput& xIn = xRig.AddInput();
    xIn.Caps("video/x-raw,format=GRAY8,width=16,height=8,framerate=25/1");
    EXPECT_EQ(GST_FLOW_ERROR, xIn.Wait(xIn.Push(TimedBuffer(0, 40 * kMs)))) << szType;
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(xRig.Out().Buffers().empty());
    std::vector<GstMessage*> xErrors = xRig.Messages(GST_MESSAGE_ERROR);
    ASSERT_EQ(1u, xErrors.size()) << szType;
    GError* pxError = NULL;
    gchar* szDebug = NULL;
    gst_message_parse_error(xErrors[0], &pxError, &szDebug);
    const bool bWall = std::string(szType) == "videowall";
    EXPECT_STREQ(bWall ? "Cannot make the video wall frame." : "Cannot get an output buffer.",
                 pxError->message);
    if (bWall) {
      EXPECT_NE(nullptr, strstr(szDebug, "QV_DEVICE=cuda was requested")) << szDebug;
    }
    g_error_free(pxError);
    g_free(szDebug);
  }
}

}  // namespace
