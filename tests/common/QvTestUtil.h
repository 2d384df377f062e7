#pragma once
// What the unit tests share: the messages of a thrown exception's chain, and host images
// written from and read back as plain numbers; with the standard headers the tests use.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "QvException.h"
#include "QvImage.h"

namespace QvTest {

// The messages of the exception and its inner ones, outermost first, joined by " > ".
inline std::string Chain(const Qv::IException& e) {
  std::string s = e.GetMessageText();
  for (const Qv::IException* p = e.GetInnerException(); p; p = p->GetInnerException())
    s = s + " > " + p->GetMessageText();
  return s;
}

// The chain of the CQvException the call throws; "" if it throws none.
template <class F>
std::string Thrown(F&& fnCall) {
  try {
    fnCall();
  } catch (const Qv::CQvException& e) {
    return Chain(e);
  }
  return "";
}

// Sample i of UByte, UShort, Short or Float data.
inline double GetSample(const void* p, Qv::EDataType::ID eData, size_t i) {
  switch (eData) {
    case Qv::EDataType::UByte:
      return static_cast<const uint8_t*>(p)[i];
    case Qv::EDataType::Short:
      return static_cast<const int16_t*>(p)[i];
    case Qv::EDataType::Float:
      return static_cast<const float*>(p)[i];
    default:
      return static_cast<const uint16_t*>(p)[i];
  }
}

// Every sample of the image in memory order.
inline std::vector<double> Samples(const Qv::IImage& xImage) {
  const Qv::CQvImageFormat f(xImage);
  const size_t uCount = f.GetImageBytes() == 0 ? 0 : f.GetImageBytes() / f.GetBytesPerChannel();
  std::vector<double> x(uCount);
  for (size_t i = 0; i < uCount; ++i) x[i] = GetSample(xImage.GetDataPtr(), f.eDataType, i);
  return x;
}

// A host image holding the samples (cast to the data type) in memory order.
inline Qv::CQvImage MakeImage(int w, int h, Qv::EPixelType::ID ePixel, Qv::EDataType::ID eData,
                              const std::vector<double>& xSamples) {
  Qv::CQvImage x(Qv::CQvImageFormat(w, h, ePixel, eData));
  if (xSamples.size() * x.GetFormat().GetBytesPerChannel() != x.GetImageBytes())
    throw std::invalid_argument("MakeImage: the sample count does not fit the format");
  void* p = x.GetDataPtr();
  for (size_t i = 0; i < xSamples.size(); ++i) {
    if (eData == Qv::EDataType::UByte)
      static_cast<uint8_t*>(p)[i] = static_cast<uint8_t>(xSamples[i]);
    else if (eData == Qv::EDataType::Short)
      static_cast<int16_t*>(p)[i] = static_cast<int16_t>(xSamples[i]);
    else if (eData == Qv::EDataType::Float)
      static_cast<float*>(p)[i] = static_cast<float>(xSamples[i]);
    else
      static_cast<uint16_t*>(p)[i] = static_cast<uint16_t>(xSamples[i]);
  }
  return x;
}

}  // namespace QvTest
