// Buffers that carry device images, and the helpers every transform shares.
#include "GstTestUtil.h"
#include "common/gstqvCudaMemory.h"

using namespace Qv;

CQvDeviceImage2D* ImageOf(GstBuffer* pxBuffer) {
  GstMapInfo xMap;
  EXPECT_TRUE(gst_buffer_map(pxBuffer, &xMap, GST_MAP_READ));
  auto* pxImage = reinterpret_cast<CQvDeviceImage2D*>(xMap.data);
  gst_buffer_unmap(pxBuffer, &xMap);
  return pxImage;
}

GstBuffer* NewDeviceBuffer() {
  GstBuffer* pxBuffer = NULL;
  EXPECT_EQ(GST_FLOW_OK, PrepareOutputBufferCuda(NULL, NULL, &pxBuffer));
  return pxBuffer;
}

TEST(DeviceMemory, ImageLivesUntilTheLastShareGoesAndDiesOnce) {
  const gint iLive = my_memory_get_live_count();
  // A fresh buffer maps to an empty image of one byte; freeing it as such is fine.
  GstBuffer* pxEmpty = NewDeviceBuffer();
  EXPECT_EQ(1u, gst_buffer_get_size(pxEmpty));
  EXPECT_FALSE(ImageOf(pxEmpty)->IsValid());
  gst_buffer_unref(pxEmpty);
  EXPECT_EQ(iLive, my_memory_get_live_count());

  GstBuffer* pxBuffer = NewDeviceBuffer();
  CQvDeviceImage2D* pxImage = ImageOf(pxBuffer);
  pxImage->Create(QvTest::SeededImage(3, 2, EPixelType::Lum, 1));
  // A shallow region copy and a share see the same image; a deep copy has its own pixels.
  GstBuffer* pxShared = gst_buffer_copy_region(pxBuffer, GST_BUFFER_COPY_MEMORY, 0, 1);
  GstMemory* pxShare = gst_memory_share(gst_buffer_peek_memory(pxBuffer, 0), 0, -1);
  EXPECT_EQ(pxImage, ImageOf(pxShared));
  GstBuffer* pxDeep = gst_buffer_copy_deep(pxBuffer);
  ASSERT_NE(pxImage, ImageOf(pxDeep));
  CQvImage xBack;
  ImageOf(pxDeep)->CopyTo(xBack);
  EXPECT_EQ(QvTest::FrameBytes(6, 1), QvTest::Bytes(xBack));
  gst_buffer_unref(pxBuffer);
  EXPECT_TRUE(ImageOf(pxShared)->IsValid());
  gst_memory_unref(pxShare);
  gst_buffer_unref(pxDeep);
  EXPECT_EQ(iLive + 1, my_memory_get_live_count());
  gst_buffer_unref(pxShared);
  EXPECT_EQ(iLive, my_memory_get_live_count());
}

TEST(MetaInfo, ApplicationsFindTheCameraMetaUnderItsNames) {
  const GstMetaInfo* pxInfo = my_meta_get_info();  // registers the meta
  EXPECT_STREQ("MyMetaInfoAPI", g_type_name(my_meta_info_api_get_type()));
  EXPECT_EQ(pxInfo, gst_meta_get_info("MyMetaInfo"));
}

// Fixed sizes in both directions go through the debayer element's negotiation.
TEST(DefaultNegotiation, ListsGoAcrossTheFilterComesFirstAndBadTemplatesGiveNothing) {
  const char* szSrc = "video/x-raw,format=RGBA,width=(int)[1,MAX],height=(int)[1,MAX]";
  g_autoptr(GstCaps) pxIn =
      gst_caps_from_string("video/x-bayer,width={320,640},height=[2,4],framerate=5/1");
  g_autoptr(GstCaps) pxFilter = gst_caps_from_string("video/x-raw,width=320,format={I420,RGBA}");
  EXPECT_TRUE(
      QvTest::CapsAre(defaultNegotiation("video/x-bayer", szSrc, GST_PAD_SINK, pxIn, pxFilter),
                      "video/x-raw,width=320,format=RGBA,height=[2,4],framerate=5/1"));
  EXPECT_TRUE(
      QvTest::CapsAre(defaultNegotiation("not caps ((", szSrc, GST_PAD_SRC, pxIn, NULL), "EMPTY"));
}
