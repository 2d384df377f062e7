// Plugin entry: the descriptor GStreamer looks for and the factories it registers.
#include "display/gstqvCudaSink.h"
#include "mixer/gstqvCudaMix.h"
#include "transform/gstqvCudaDebayer.h"
#include "transform/gstqvCudaScale.h"
#include "transform/gstqvCudaUpload.h"

#ifndef PACKAGE
#define PACKAGE "qvproc"
#endif

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
