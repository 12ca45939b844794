#include "Common/crc.h"

namespace {

constexpr std::array<crc, 256> makeTable() {
    std::array<crc, 256> table{};
    for (unsigned i = 0; i < table.size(); ++i) {
        unsigned remainder = i;
        for (int bit = 0; bit < 8; ++bit) {
            remainder = (remainder & 1U) != 0 ? (remainder >> 1) ^ POLYNOMIAL : remainder >> 1;
        }
        table[i] = static_cast<crc>(remainder);
    }
    return table;
}

}  // namespace

const std::array<crc, 256> crcTable = makeTable();

crc crcCalc(const unsigned char* message, int nBytes) {
    crc remainder = INITIAL_REMAINDER;
    for (int i = 0; i < nBytes; ++i) {
        remainder = static_cast<crc>(crcTable[(message[i] ^ remainder) & 0xFF] ^ (remainder >> 8));
    }
    return remainder ^ FINAL_XOR_VALUE;
}
