#include "H5Camera.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "QvException.h"

static_assert(VIDIOC_G_CTRL == 0xC008561B && VIDIOC_S_CTRL == 0xC008561C &&
                  VIDIOC_QUERYCTRL == 0xC0445624,
              "the V4L2 control requests of a 64-bit Linux");

namespace {

const uint32_t kGainSteps = 52;

int SystemOpen(const char* path, int flags) {
  return ::open(path, flags);
}
int SystemClose(int file) {
  return ::close(file);
}
int SystemIoctl(int file, unsigned long request, void* argument) {
  return ::ioctl(file, request, argument);
}

const SH5CameraSystem xLibrary = {SystemOpen, SystemClose, SystemIoctl};
std::atomic<const SH5CameraSystem*> pxSystem{&xLibrary};

// Truncation towards zero to 32 bits, saturating where a plain cast would be undefined.
int32_t TruncToInt32(float fValue) {
  if (std::isnan(fValue)) return 0;
  if (fValue >= 2147483647.0f) return INT32_MAX;
  if (fValue <= -2147483648.0f) return INT32_MIN;
  return static_cast<int32_t>(fValue);
}

// One text for all three requests: the function of the exception tells them apart.
void Control(int iFile, unsigned long uRequest, void* pArgument, const char* szFunction,
             int iLine) {
  if (pxSystem.load()->pfnIoctl(iFile, uRequest, pArgument) != -1) return;
  const int iError = errno;
  Qv::CQvString sText("ioctl failed with error ");
  sText << iError;
  throw Qv::CQvException::CreateFirst(sText.ToCString(), __FILE__, szFunction, iLine);
}

}  // namespace

void CH5Camera::SetSystem(const SH5CameraSystem* system) {
  pxSystem.store(system ? system : &xLibrary);
}

CH5Camera::CH5Camera(const std::string& device)
    : uPixelClock(317400000),
      uLineLength(4320),
      iFile(-1),
      uGainControl(0x9A200A),
      uExposureControl(0x9A2001) {
  SetDevice(device);
}

CH5Camera::~CH5Camera() {
  if (iFile != -1) pxOpener->pfnClose(iFile);
}

float CH5Camera::LineTime() const {
  return static_cast<float>(uLineLength) / static_cast<float>(uPixelClock);
}

uint32_t CH5Camera::ControlId(ECamProperty property) const {
  return static_cast<uint32_t>(property == CamExposure ? uExposureControl : uGainControl);
}

void CH5Camera::SetDevice(const std::string& path) {
  sDevice = path;
  if (iFile != -1) {
    pxOpener->pfnClose(iFile);
    iFile = -1;
  }
  pxOpener = pxSystem.load();
  iFile = pxOpener->pfnOpen(sDevice.c_str(), O_RDWR);
}

void CH5Camera::GetProperty(ECamProperty property, float& value) {
  struct v4l2_control xControl;
  std::memset(&xControl, 0, sizeof(xControl));
  xControl.id = ControlId(property);
  Control(iFile, VIDIOC_G_CTRL, &xControl, __func__, __LINE__);
  const int32_t c = xControl.value;
  if (property == CamExposure)
    value = c == 0 ? LineTime() * 1.0f : LineTime() * static_cast<float>(c);
  else
    value = static_cast<float>(c / static_cast<int32_t>(kGainSteps));
}

void CH5Camera::SetProperty(ECamProperty property, float value) {
  struct v4l2_control xControl;
  std::memset(&xControl, 0, sizeof(xControl));
  xControl.id = ControlId(property);
  if (property == CamExposure) {
    xControl.value = TruncToInt32(value / LineTime());
  } else {
    // Whole units only; the product saturates like the truncation.
    const int64_t iValue = static_cast<int64_t>(TruncToInt32(value)) * kGainSteps;
    xControl.value =
        static_cast<int32_t>(std::max<int64_t>(INT32_MIN, std::min<int64_t>(INT32_MAX, iValue)));
  }
  Control(iFile, VIDIOC_S_CTRL, &xControl, __func__, __LINE__);
}

void CH5Camera::GetPropertyRange(ECamProperty property, float& min, float& max) {
  struct v4l2_queryctrl xQuery;
  std::memset(&xQuery, 0, sizeof(xQuery));
  xQuery.id = ControlId(property);
  Control(iFile, VIDIOC_QUERYCTRL, &xQuery, __func__, __LINE__);
  if (property == CamExposure) {
    // The smallest exposure is one line above the control's minimum.
    const int64_t iMin = static_cast<int64_t>(xQuery.minimum) + 1;
    max = xQuery.maximum == 0 ? LineTime() * 1.0f : LineTime() * static_cast<float>(xQuery.maximum);
    min = iMin == 0 ? LineTime() * 1.0f : LineTime() * static_cast<float>(iMin);
  } else {
    min = static_cast<float>(xQuery.minimum / static_cast<int32_t>(kGainSteps));
    max = static_cast<float>(xQuery.maximum / static_cast<int32_t>(kGainSteps));
  }
}
