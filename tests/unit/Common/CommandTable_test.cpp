#include "Common/CommandTable.h"

#include <gtest/gtest.h>

namespace {

struct Row {
    uint8 main;
    uint8 sub;
    int value;
};
constexpr Row table[] = {{'C', 'B', 1}, {'C', 'D', 2}, {'G', 'I', 3}, {0xFF, 0x80, 4}};

const Row* find(unsigned main, unsigned sub) {
    pckStruct cmd;
    cmd.MainCmd = static_cast<uint8>(main);
    cmd.SubCmd = static_cast<uint8>(sub);
    return findCommand(table, cmd);
}

TEST(CommandTable, GivesTheRowOfBothLetters) {
    for (const Row& row : table) {
        EXPECT_EQ(find(row.main, row.sub), &row);
    }
}

TEST(CommandTable, HasNoRowForOneLetterAlone) {
    EXPECT_EQ(find('C', 'I'), nullptr);
    EXPECT_EQ(find('G', 'B'), nullptr);
    EXPECT_EQ(find('B', 'C'), nullptr);
    EXPECT_EQ(find(0x7F, 0x80), nullptr);
    EXPECT_EQ(find(0, 0), nullptr);
}

TEST(CommandTable, KnowsTheFirstLettersOfItsRows) {
    for (int main = 0; main < 256; ++main) {
        EXPECT_EQ(hasMainCmd(table, static_cast<uint8>(main)), main == 'C' || main == 'G' || main == 0xFF) << main;
    }
}

}  // namespace
