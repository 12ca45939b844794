// The CRC that the frames of both protocols carry: table driven, reflected.
#ifndef COMMON_CRC_H
#define COMMON_CRC_H

#include <array>

#include "Common/Common.h"

using crc = uint16;

constexpr crc POLYNOMIAL = 0x8408;  // reflected form of x^16 + x^12 + x^5 + 1
constexpr crc INITIAL_REMAINDER = 0x554D;
constexpr crc FINAL_XOR_VALUE = 0x0000;

/// Remainder of each byte, bits processed least significant first.
extern const std::array<crc, 256> crcTable;

/// CRC of `nBytes` bytes; the initial remainder where `nBytes` is below 1.
crc crcCalc(const unsigned char* message, int nBytes);

#endif
