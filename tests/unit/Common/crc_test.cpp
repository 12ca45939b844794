#include "Common/crc.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

// Bit by bit, without the table.
crc slowCrc(const std::vector<unsigned char>& message) {
    unsigned remainder = 0x554D;
    for (const unsigned char byte : message) {
        remainder ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            remainder = (remainder & 1) != 0 ? (remainder >> 1) ^ 0x8408 : remainder >> 1;
        }
    }
    return static_cast<crc>(remainder);
}

TEST(Crc, TableHoldsTheRemaindersOfTheBytes) {
    EXPECT_EQ(crcTable[0], 0x0000);
    EXPECT_EQ(crcTable[1], 0x1189);
    EXPECT_EQ(crcTable[2], 0x2312);
    EXPECT_EQ(crcTable[255], 0x0F78);
}

TEST(Crc, OfNothingIsTheInitialRemainder) {
    const unsigned char byte = 0x02;
    EXPECT_EQ(crcCalc(&byte, 0), 0x554D);
    EXPECT_EQ(crcCalc(&byte, -1), 0x554D);
    EXPECT_EQ(crcCalc(nullptr, 0), 0x554D);
}

TEST(Crc, OfKnownMessages) {
    const unsigned char digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(crcCalc(digits, 9), 0x63D0);
    const unsigned char stx = 0x02;
    EXPECT_EQ(crcCalc(&stx, 1), 0xBAA6);
}

TEST(Crc, AgreesWithTheDefinition) {
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    for (int round = 0; round < 300; ++round) {
        std::vector<unsigned char> message(1 + random() % 400);
        for (unsigned char& byte : message) {
            byte = static_cast<unsigned char>(random());
        }
        ASSERT_EQ(crcCalc(message.data(), static_cast<int>(message.size())), slowCrc(message)) << "seed " << seed;
    }
}

}  // namespace
