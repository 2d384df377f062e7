// 128-bit globally unique identifier, used to tag exception types.
#pragma once

#include <cstdint>

#include "QvString.h"

namespace Qv::Interop::Runtime30 {

class CGuid {
 public:
  // The all-zero GUID.
  CGuid();
  // Parses "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}"; braces are optional (but must match),
  // hex digits in either case. Any malformed text gives the all-zero GUID. Null is malformed.
  explicit CGuid(const char* pText);

  bool operator==(const CGuid& xOther) const;
  bool operator!=(const CGuid& xOther) const { return !(*this == xOther); }

  // Upper-case braced form, e.g. "{1D1A0143-63EA-4BE4-AF72-6907ACCF1E7F}".
  CQvString ToString() const;
  bool IsNull() const;

  // The 16 bytes in text order (first hex pair of the text is byte 0).
  const uint8_t* GetBytes() const { return m_auBytes; }

 private:
  uint8_t m_auBytes[16];
};

}  // namespace Qv::Interop::Runtime30
