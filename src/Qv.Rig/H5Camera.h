#pragma once
// Exposure and gain of the rig's sensor, read and written as V4L2 controls on the camera's
// device file, in the controller's units: seconds and whole gain steps. The sensor's timing
// and control ids are compiled in; another sensor needs other values.
#include <cstdint>
#include <string>

enum ECamProperty { CamExposure, CamGain };

// The system calls the camera makes. The C library's by default; tests put a fake device in
// their place.
struct SH5CameraSystem {
  int (*pfnOpen)(const char* path, int flags);
  int (*pfnClose)(int file);
  int (*pfnIoctl)(int file, unsigned long request, void* argument);
};

class CH5Camera {
 public:
  explicit CH5Camera(const std::string& device);
  ~CH5Camera();  // closes the file
  CH5Camera(const CH5Camera&) = delete;
  CH5Camera& operator=(const CH5Camera&) = delete;

  // Closes the present file and opens the new one. A failing open is reported by the next
  // control access, which then fails on the invalid descriptor.
  void SetDevice(const std::string& path);
  // Each raises CQvException "ioctl failed with error <errno>" where the driver refuses.
  void GetProperty(ECamProperty property, float& value);
  void SetProperty(ECamProperty property, float value);
  void GetPropertyRange(ECamProperty property, float& min, float& max);

  // Null restores the C library's calls. Process-wide; set it while no camera is in use.
  static void SetSystem(const SH5CameraSystem* system);

  std::string sDevice;
  uint32_t uPixelClock;  // Hz
  uint32_t uLineLength;  // pixel clocks a sensor line
  int32_t iFile;
  uint64_t uGainControl;      // 52 control steps make one unit of gain
  uint64_t uExposureControl;  // in sensor lines

 private:
  const SH5CameraSystem* pxOpener = nullptr;  // the calls that opened iFile close it
  float LineTime() const;
  uint32_t ControlId(ECamProperty property) const;
};
