// Fixed vectors of one element type, plain values that host and device code can share.
#pragma once

namespace Qv {

template <typename T>
struct tvec2 {
  T x;
  T y;
};

}  // namespace Qv
