#pragma once
// The control law of the automatic exposure: how bright a raw frame is (with a penalty for
// blown-out samples), and which exposure time and gain should bring the next frames to the
// target. Touches no camera and no GStreamer object; the element feeds it the camera's values.
#include <string>

#include "QvImageFormat.h"
#include "QvVector.h"

struct SAutoAdaptSettings {
  bool bAutoExp = true;
  bool bAutoGain = true;
  // Controlled jointly with the other cameras of the rig; the element's matter.
  bool bMaster = false;
  // The measured region, as fractions of width and height.
  float fRoiX1 = 0.0f;
  float fRoiY1 = 0.0f;
  float fRoiX2 = 1.0f;
  float fRoiY2 = 1.0f;
  int iSamples = 50;  // per axis
  int iUpdate = 5;    // frames between two measures
  float fTarget = 0.4f;
  float fTolerance = 0.1f;  // half width of the band in which nothing changes
  float fAdaption = 0.5f;   // fraction of the correction applied at one step
  float fPenalty = 1.0f;    // weight of the overexposed samples
};

// The brightness report of one camera to the rig's controller.
struct SAutoAdaptStatus {
  float fBrightness = 0.0f;
  std::string sDevice;
};

// Holds no history: one object serves one frame.
class CAutoAdapt {
 public:
  CAutoAdapt(float exposure, float exposureMin, float exposureMax, float gain, float gainMin,
             float gainMax, const SAutoAdaptSettings& settings);

  // One whole step: measure, work out, clip. gain and exposure come out as the camera's present
  // values where the brightness lies in the band.
  void DoAutoExposure(float& gain, float& exposure, const Qv::IImage* image);
  // Never below 0.0001, so that the control law can divide by it; can exceed 1.
  float GetAverageBrightness(const Qv::IImage* image);
  // True when the values were worked on and are to be clipped.
  bool CalculateExposureGain(float& gain, float& exposure, float brightness);
  // The lower bounds are applied last and win over an empty range.
  void ClipValues(float& gain, float& exposure);

  // iSamples x iSamples 2x2 patches on a grid of whole-pixel steps over the region: their mean
  // and the fraction at or above 0.99.
  void _GetAverageBrightnessPercent(const Qv::IImage* image, SAutoAdaptSettings& settings,
                                    float& average, float& overexposed);
  // Mean of a 2x2 block, 0 to 1: each colour site of a mosaic once. A block reaching past the
  // right or bottom edge is moved back into the image.
  float _GetAverageBrightnessBayerPatch(Qv::tvec2<int> position, const Qv::IImage* image);

  float fExposure;
  float fExposureMax;
  float fExposureMin;
  float fGain;
  float fGainMax;
  float fGainMin;
  SAutoAdaptSettings xSettings;
  size_t uRowPitch = 0;  // pixels from row to row of the measured image; below the width: packed
};
