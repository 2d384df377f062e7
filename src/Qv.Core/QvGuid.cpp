#include "QvGuid.h"

#include <cstring>

namespace Qv::Interop::Runtime30 {

namespace {

int HexValue(char cDigit) {
  if (cDigit >= '0' && cDigit <= '9') return cDigit - '0';
  if (cDigit >= 'a' && cDigit <= 'f') return cDigit - 'a' + 10;
  if (cDigit >= 'A' && cDigit <= 'F') return cDigit - 'A' + 10;
  return -1;
}

// Parses exactly the 36-character "8-4-4-4-12" body into the bytes. The caller guarantees that
// 36 characters are readable.
bool ParseBody(const char* pBody, uint8_t* pBytes) {
  int iByte = 0;
  for (int iPos = 0; iPos < 36;) {
    if (iPos == 8 || iPos == 13 || iPos == 18 || iPos == 23) {
      if (pBody[iPos] != '-') return false;
      ++iPos;
      continue;
    }
    const int iHigh = HexValue(pBody[iPos]);
    const int iLow = HexValue(pBody[iPos + 1]);
    if (iHigh < 0 || iLow < 0) return false;
    pBytes[iByte++] = static_cast<uint8_t>(iHigh * 16 + iLow);
    iPos += 2;
  }
  return iByte == 16;
}

}  // namespace

CGuid::CGuid() {
  std::memset(m_auBytes, 0, sizeof(m_auBytes));
}

CGuid::CGuid(const char* pText) : CGuid() {
  if (pText == nullptr) return;
  // strnlen bounds the scan so that no byte past the terminator is ever read.
  const size_t uLength = strnlen(pText, 39);
  const char* pBody = nullptr;
  if (uLength == 38 && pText[0] == '{' && pText[37] == '}') {
    pBody = pText + 1;
  } else if (uLength == 36) {
    pBody = pText;
  } else {
    return;
  }
  uint8_t auBytes[16];
  if (ParseBody(pBody, auBytes)) std::memcpy(m_auBytes, auBytes, sizeof(m_auBytes));
}

bool CGuid::operator==(const CGuid& xOther) const {
  return std::memcmp(m_auBytes, xOther.m_auBytes, sizeof(m_auBytes)) == 0;
}

CQvString CGuid::ToString() const {
  static const char acDigits[] = "0123456789ABCDEF";
  char acText[39];
  int iOut = 0;
  acText[iOut++] = '{';
  for (int iByte = 0; iByte < 16; ++iByte) {
    if (iByte == 4 || iByte == 6 || iByte == 8 || iByte == 10) acText[iOut++] = '-';
    acText[iOut++] = acDigits[m_auBytes[iByte] >> 4];
    acText[iOut++] = acDigits[m_auBytes[iByte] & 0x0F];
  }
  acText[iOut++] = '}';
  acText[iOut] = '\0';
  return CQvString(acText);
}

bool CGuid::IsNull() const {
  for (uint8_t uByte : m_auBytes) {
    if (uByte != 0) return false;
  }
  return true;
}

}  // namespace Qv::Interop::Runtime30
