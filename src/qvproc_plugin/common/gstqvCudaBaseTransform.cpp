#include "common/gstqvCudaBaseTransform.h"

#include "QvDevice.h"
#include "QvException.h"

GST_DEBUG_CATEGORY_STATIC(gst_qv_cuda_base_transform_debug);
#define GST_CAT_DEFAULT gst_qv_cuda_base_transform_debug

G_DEFINE_ABSTRACT_TYPE_WITH_CODE(GstQvCudaBaseTransform, gst_qv_cuda_base_transform,
                                 GST_TYPE_BASE_TRANSFORM,
                                 GST_DEBUG_CATEGORY_INIT(gst_qv_cuda_base_transform_debug,
                                                         "qvcudabasetransform", 0,
                                                         "qvvideoproc device transform base"))

static void gst_qv_cuda_base_transform_finalize(GObject* object);
static gboolean gst_qv_cuda_base_transform_start(GstBaseTransform* trans);

static void gst_qv_cuda_base_transform_class_init(GstQvCudaBaseTransformClass* klass) {
  GObjectClass* pxObjectClass = G_OBJECT_CLASS(klass);
  GstBaseTransformClass* pxTransClass = GST_BASE_TRANSFORM_CLASS(klass);
  pxObjectClass->finalize = gst_qv_cuda_base_transform_finalize;
  pxTransClass->start = GST_DEBUG_FUNCPTR(gst_qv_cuda_base_transform_start);
}

static void gst_qv_cuda_base_transform_init(GstQvCudaBaseTransform* self) {
  self->stream = nullptr;
  self->comp = nullptr;
  try {
    self->stream = Qv::Device::CreateStream();
  } catch (const Qv::IException& e) {
    // No device: the element still exists, and start reports why it cannot run.
    GST_DEBUG_OBJECT(self, "no stream: %s", e.GetMessageText());
  }
}

static gboolean gst_qv_cuda_base_transform_start(GstBaseTransform* trans) {
  GstQvCudaBaseTransform* self = GST_QV_CUDA_BASE_TRANSFORM(trans);
  try {
    Qv::Device::GetBackend();
    if (Qv::Device::IsCuda() && !self->stream) self->stream = Qv::Device::CreateStream();
  } catch (const Qv::IException& e) {
    GST_ELEMENT_ERROR(trans, RESOURCE, FAILED, ("%s", e.GetMessageText()),
                      ("no device backend for %s", GST_OBJECT_NAME(trans)));
    return FALSE;
  }
  return TRUE;
}

void QvSetupDeviceTransformClass(GstBaseTransformClass* pxClass, const char* szLongName,
                                 const char* szDescription, GstStaticPadTemplate* pxSinkTemplate,
                                 GstStaticPadTemplate* pxSrcTemplate, QvTransformFunc fnTransform,
                                 QvTransformCapsFunc fnTransformCaps, const char* szKlass) {
  GstElementClass* pxElementClass = GST_ELEMENT_CLASS(pxClass);
  gst_element_class_set_static_metadata(pxElementClass, szLongName, szKlass, szDescription,
                                        "qvvideoproc developers");
  gst_element_class_add_static_pad_template(pxElementClass, pxSinkTemplate);
  gst_element_class_add_static_pad_template(pxElementClass, pxSrcTemplate);
  pxClass->transform = fnTransform;
  if (fnTransformCaps) pxClass->transform_caps = fnTransformCaps;
  pxClass->prepare_output_buffer = GST_DEBUG_FUNCPTR(PrepareOutputBufferCuda);
}

static void gst_qv_cuda_base_transform_finalize(GObject* object) {
  GstQvCudaBaseTransform* self = GST_QV_CUDA_BASE_TRANSFORM(object);
  if (self->stream) {
    try {
      Qv::Device::DestroyStream(self->stream);
    } catch (const Qv::IException&) {
    }
    self->stream = nullptr;
  }
  delete self->comp;
  self->comp = nullptr;
  G_OBJECT_CLASS(gst_qv_cuda_base_transform_parent_class)->finalize(object);
}
