#include "gstqvHostElements.h"

#include "bayer2lum.h"
#include "bayer2rgb.h"
#include "gstqvCudaDownload.h"
#include "gstqvCudaNormalize.h"
#include "gstqvCudaYUV.h"
#include "rgb2bayer.h"

gboolean qv_register_host_elements(void) {
  gboolean bOk = TRUE;
  bOk &=
      gst_element_register(NULL, "qvcudanormalize", GST_RANK_NONE, gst_cuda_normalize_get_type());
  bOk &= gst_element_register(NULL, "qvcudayuv", GST_RANK_NONE, gst_cuda_yuv_get_type());
  bOk &= gst_element_register(NULL, "qvcudadownload", GST_RANK_NONE, gst_cuda_download_get_type());
  bOk &= gst_element_register(NULL, "qvbayer2rgb", GST_RANK_NONE, gst_bayer2rgb_get_type());
  bOk &= gst_element_register(NULL, "qvrgb2bayer", GST_RANK_NONE, gst_rgb2bayer_get_type());
  bOk &= gst_element_register(NULL, "qvbayer2lum", GST_RANK_NONE, gst_bayer2lum_get_type());
  return bOk;
}
