// Run with QV_DEVICE=cuda without a GPU: the wall ends the frame with an element error and
// GST_FLOW_ERROR, and goes on living. The selector needs no device.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "MixerRig.h"
#include "QvDevice.h"
#include "QvException.h"
#include "QvMessage.h"

using namespace QvTest;

TEST(MixWithoutDevice, TheWallFailsTheFrameWithAnElementError) {
  try {
    Qv::Device::GetBackend();
    GTEST_SKIP() << "a device backend is available";
  } catch (const Qv::IException&) {
  }
  for (auto [szType, szError, szDebug] : {std::tuple{
           "videowall", "Cannot make the video wall frame.", "QV_DEVICE=cuda was requested"}}) {
    Qv::CMessageCapture xMessages;
    CMixerRig x(szType, {kGray25});
    EXPECT_EQ(GST_FLOW_ERROR, x.PushNow(0, TimedBuffer(0, 40 * kMs))) << szType;
    EXPECT_TRUE(x.Out().empty());
    std::vector<GstMessage*> xErrors = x.RawMessages(GST_MESSAGE_ERROR);
    ASSERT_EQ(1u, xErrors.size()) << szType;
    GError* pxError = NULL;
    gchar* szText = NULL;
    gst_message_parse_error(xErrors[0], &pxError, &szText);
    EXPECT_STREQ(szError, pxError->message);
    EXPECT_NE(std::string::npos, std::string(szText).find(szDebug)) << szText;
    g_error_free(pxError);
    g_free(szText);
  }
}
