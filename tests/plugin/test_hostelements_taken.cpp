// GStreamer's bayer plugin names its type GstBayer2RGB: where that name is taken first, every
// host element, qvbayer2rgb too, is registered all the same.

#include "GstTestUtil.h"

TEST(HostElements, GStreamersBayer2RgbTypeNameTakesNoElementOfOurs) {
  const GTypeInfo xInfo = {sizeof(GstBaseTransformClass), NULL, NULL, NULL, NULL, NULL,
                           sizeof(GstBaseTransform),      0,    NULL, NULL};
  const GType xForeign = g_type_register_static(GST_TYPE_BASE_TRANSFORM, "GstBayer2RGB", &xInfo,
                                                static_cast<GTypeFlags>(0));
  ASSERT_NE(0u, xForeign);
  EXPECT_TRUE(qv_register_host_elements());
  EXPECT_TRUE(qv_register_host_elements());  // again: the same answer, nothing new
  for (const char* szName : {"qvcudanormalize", "qvcudayuv", "qvcudadownload", "qvrgb2bayer",
                             "qvbayer2lum", "qvbayer2rgb"}) {
    GstElement* pxElement = gst_element_factory_make(szName, NULL);
    ASSERT_NE(nullptr, pxElement) << szName;
    EXPECT_NE(xForeign, G_OBJECT_TYPE(pxElement)) << szName;
    gst_object_unref(pxElement);
  }
}
