#pragma once
// What the unit tests share: thrown messages, host images from and to plain numbers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "QvException.h"
#include "QvImage.h"

// Inside a table's loop: a result of another format than expected fails its row, and the
// table goes on with the next row instead of reading past the result.
#define QV_EXPECT_FORMAT_OR_NEXT(expected, actual)                     \
  if (!((expected) == (actual))) {                                     \
    ADD_FAILURE() << (actual).ToString().ToCString() << " instead of " \
                  << (expected).ToString().ToCString();                \
    continue;                                                          \
  }

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

// Calls f with the samples of UByte, UShort, Short or Float data as a pointer of their type.
template <class F>
void WithSamples(Qv::EDataType::ID eData, void* p, F&& f) {
  if (eData == Qv::EDataType::UByte) return f(static_cast<uint8_t*>(p));
  if (eData == Qv::EDataType::Short) return f(static_cast<int16_t*>(p));
  if (eData == Qv::EDataType::Float) return f(static_cast<float*>(p));
  f(static_cast<uint16_t*>(p));
}

inline double GetSample(const void* p, Qv::EDataType::ID eData, size_t i) {
  double d = 0;
  WithSamples(eData, const_cast<void*>(p), [&](auto* q) { d = q[i]; });
  return d;
}

// Every sample of the image in memory order.
inline std::vector<double> Samples(const Qv::IImage& xImage) {
  const Qv::CQvImageFormat f(xImage);
  std::vector<double> x(f.GetImageBytes() == 0 ? 0 : f.GetImageBytes() / f.GetBytesPerChannel());
  for (size_t i = 0; i < x.size(); ++i) x[i] = GetSample(xImage.GetDataPtr(), f.eDataType, i);
  return x;
}

// A host image holding the samples (cast to the data type) in memory order.
inline Qv::CQvImage MakeImage(int w, int h, Qv::EPixelType::ID ePixel, Qv::EDataType::ID eData,
                              const std::vector<double>& x) {
  Qv::CQvImage xImage(Qv::CQvImageFormat(w, h, ePixel, eData));
  EXPECT_EQ(x.size() * xImage.GetFormat().GetBytesPerChannel(), xImage.GetImageBytes());
  WithSamples(eData, xImage.GetDataPtr(), [&](auto* q) {
    for (size_t i = 0; i < x.size() && i * sizeof(*q) < xImage.GetImageBytes(); ++i)
      q[i] = static_cast<std::remove_reference_t<decltype(*q)>>(x[i]);
  });
  return xImage;
}

}  // namespace QvTest
