// Plugin entry: the descriptor GStreamer looks for, the factories it registers, and the
// buffer meta that carries camera settings along with a frame.
#include "plugin.h"

#include "gstqvCudaDebayer.h"
#include "gstqvCudaMix.h"
#include "gstqvCudaScale.h"
#include "gstqvCudaSink.h"
#include "gstqvCudaUpload.h"

#ifndef PACKAGE
#define PACKAGE "qvproc"
#endif

static gboolean my_meta_init(GstMeta* /*meta*/, gpointer /*params*/, GstBuffer* /*buffer*/) {
  return TRUE;
}

GType my_meta_info_api_get_type(void) {
  static gsize uType = 0;
  static const gchar* apszTags[] = {"buffer", "meta", NULL};
  if (g_once_init_enter(&uType)) {
    GType xType = gst_meta_api_type_register("MyMetaInfoAPI", apszTags);
    g_once_init_leave(&uType, xType);
  }
  return static_cast<GType>(uType);
}

const GstMetaInfo* my_meta_get_info(void) {
  static const GstMetaInfo* pxInfo = NULL;
  if (g_once_init_enter(&pxInfo)) {
    const GstMetaInfo* pxNew =
        gst_meta_register(MY_META_INFO_API_TYPE, "MyMetaInfo", sizeof(MyMetaInfo), my_meta_init,
                          (GstMetaFreeFunction)NULL, (GstMetaTransformFunction)NULL);
    g_once_init_leave(&pxInfo, pxNew);
  }
  return pxInfo;
}

static gboolean plugin_init(GstPlugin* plugin) {
  // Every registration is tried, whatever an earlier one gave.
  gboolean bOk = TRUE;
  bOk &= gst_element_register(plugin, "qvcudadebayer", GST_RANK_NONE, gst_cuda_debayer_get_type());
  bOk &= gst_element_register(plugin, "qvcudaupload", GST_RANK_NONE, gst_cuda_upload_get_type());
  bOk &= gst_element_register(plugin, "qvcudamix", GST_RANK_NONE, gst_cudamixer2_get_type());
  bOk &= gst_element_register(plugin, "qvcudascale", GST_RANK_NONE, gst_cuda_scale_get_type());
  bOk &= gst_element_register(plugin, "qvcudasink", GST_RANK_NONE, gst_cuda_sink_get_type());
  return bOk;
}

GST_PLUGIN_DEFINE(1, 9, qvvideoproc,
                  "Velmora camera rig: frames stay in device memory from upload through "
                  "debayer, scale and mix",
                  plugin_init, "0.01", "LGPL", "qvvideoproc",
                  "https://www.velmora.example/qvvideoproc")
