#include "gstqvHostElements.h"

#include "bayer2lum.h"
#include "bayer2rgb.h"
#include "gstqvCudaDownload.h"
#include "gstqvCudaJpegSink.h"
#include "gstqvCudaNormalize.h"
#include "gstqvCudaYUV.h"
#include "rgb2bayer.h"

// GStreamer's own bayer plugin names its element type GstBayer2RGB as well. Where that plugin
// was loaded into the process first, the name is taken: qvbayer2rgb is then left out with a
// warning rather than registered with an invalid type.
static GType Bayer2RgbType(void) {
  static GType xOurs = 0;
  if (!xOurs) {
    if (g_type_from_name("GstBayer2RGB")) {
      GST_WARNING(
          "the type name GstBayer2RGB is taken (GStreamer's bayer plugin?): "
          "qvbayer2rgb is not registered");
      return 0;
    }
    xOurs = gst_bayer2rgb_get_type();
  }
  return xOurs;
}

gboolean qv_register_host_elements(void) {
  gboolean bOk = TRUE;
  bOk &=
      gst_element_register(NULL, "qvcudanormalize", GST_RANK_NONE, gst_cuda_normalize_get_type());
  bOk &= gst_element_register(NULL, "qvcudayuv", GST_RANK_NONE, gst_cuda_yuv_get_type());
  bOk &= gst_element_register(NULL, "qvcudadownload", GST_RANK_NONE, gst_cuda_download_get_type());
  const GType xBayer2Rgb = Bayer2RgbType();
  bOk &= xBayer2Rgb && gst_element_register(NULL, "qvbayer2rgb", GST_RANK_NONE, xBayer2Rgb);
  bOk &= gst_element_register(NULL, "qvrgb2bayer", GST_RANK_NONE, gst_rgb2bayer_get_type());
  bOk &= gst_element_register(NULL, "qvbayer2lum", GST_RANK_NONE, gst_bayer2lum_get_type());
  bOk &= gst_element_register(NULL, "qvcudajpegsink", GST_RANK_NONE, gst_cuda_jpeg_sink_get_type());
  return bOk;
}
