// The companion plugin "qvvideoprochost": factories for the element types that the element library
// exports without one (qvcudanormalize, qvcudayuv, qvcudadownload, the caps filters and every
// further type that qv_register_host_elements() registers), so that gst-inspect-1.0,
// gst-launch-1.0 and Gst.ElementFactory.make find them through the registry.
#include <gst/gst.h>

#include "gstqvHostElements.h"

#ifndef PACKAGE
#define PACKAGE "qvproc"
#endif

static gboolean plugin_init(GstPlugin* plugin) {
  return qv_register_host_elements_into(plugin);
}

GST_PLUGIN_DEFINE(1, 9, qvvideoprochost,
                  "Velmora camera rig: factories for the elements of qvvideoproc that a host "
                  "application would otherwise register (normalize, YUV, download, caps filters)",
                  plugin_init, "0.01", "LGPL", "qvvideoproc",
                  "https://www.velmora.example/qvvideoproc")
