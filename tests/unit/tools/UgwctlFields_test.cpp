#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <set>

#include "HandMade.h"
#include "tools/ugwctl/Fields.h"
#include "tools/ugwctl/States.h"
#include "tools/ugwctl/Text.h"

namespace {

using ugwctl::Field;
using ugwctl::Kind;
using ugwctl::Record;
using ugwctl::StateClass;

// How often each byte of a record is described.
void cover(const Record& record, std::size_t base, std::vector<int>& bytes) {
    for (const Field& field : record) {
        for (std::size_t i = 0; i < field.count; ++i) {
            const std::size_t at = base + field.offset + i * field.width;
            if (field.kind == Kind::Group) {
                cover(*field.record, at, bytes);
                continue;
            }
            for (std::size_t byte = at; byte < at + field.width; ++byte) {
                ++bytes.at(byte);
            }
        }
    }
}

void expectCovered(uint8 kind, std::size_t end) {
    std::vector<int> bytes(sizeof(virtualNode_t), 0);
    cover(ugwctl::nodeRecord, 0, bytes);
    cover(*ugwctl::descRecord(kind)->begin()->record, offsetof(virtualNode_t, desc), bytes);
    for (std::size_t i = offsetof(virtualNode_t, identification); i < end; ++i) {
        // The last byte of the root holds flags and a count.
        const bool isShared = kind == sysNode && i == end - 1;
        EXPECT_EQ(bytes[i], isShared ? 2 : 1) << "kind " << int{kind} << ", byte " << i;
    }
    for (std::size_t i = end; i < bytes.size(); ++i) {
        EXPECT_EQ(bytes[i], 0) << i;
    }
}

TEST(Tables, DescribeEveryByteOnce) {
    constexpr std::size_t desc = offsetof(virtualNode_t, desc);
    expectCovered(sysNode, desc + sizeof(descSys_t));
    expectCovered(upsBoxNode, desc + sizeof(descUpsBox_t));
    expectCovered(battBoxNode, desc + sizeof(descBattBox_t));
    expectCovered(moduleNode, desc + sizeof(descModule_t));
}

void eachField(const Record& record, void (*look)(const Field&)) {
    for (const Field& field : record) {
        field.kind == Kind::Group ? eachField(*field.record, look) : look(field);
    }
}

TEST(Tables, NameEachBitOnceAndEveryMetricHasAUnit) {
    for (const uint8 kind : {sysNode, upsBoxNode, battBoxNode, moduleNode}) {
        eachField(*ugwctl::descRecord(kind), [](const Field& field) {
            std::set<int> bits;
            for (const ugwctl::Name& name : field.names) {
                EXPECT_TRUE(bits.insert(name.value).second) << field.name << name.name;
                EXPECT_TRUE(field.kind != Kind::Flags || name.value < 8 * field.width) << name.name;
            }
            if (field.metric != nullptr) {
                EXPECT_TRUE(field.kind == Kind::Flags || field.unit != nullptr) << field.name;
            }
        });
    }
    EXPECT_EQ(ugwctl::descRecord(extNode), nullptr);
    EXPECT_EQ(ugwctl::descRecord(255), nullptr);
}

const Field& dataField(const char* name) {
    for (const Field& field : *ugwctl::descRecord(moduleNode)->begin()->record->begin()->record) {
        if (std::string(field.name) == name) {
            return field;
        }
    }
    throw std::out_of_range(name);
}

TEST(Number, HasItsSignWidthAndUnit) {
    dataObject_t data;
    std::memset(&data, 0, sizeof(data));
    data.Ibatp = -52;
    data.Load[2] = -3;
    data.Iin[1] = 4000000000U;
    data.Frq_out = 501;
    const uint8* const base = reinterpret_cast<const uint8*>(&data);
    EXPECT_EQ(scaledText(dataField("Ibatp"), number(dataField("Ibatp"), base)), "-5.2");
    EXPECT_EQ(number(dataField("Load"), base, 2), -3);
    EXPECT_EQ(number(dataField("Iin"), base, 1), 4000000000);
    EXPECT_EQ(scaledText(dataField("Frq_out"), number(dataField("Frq_out"), base)), "50.1");
    data.Aut_time = 0xFFFF;
    data.Carica_adj = 0xFF;
    for (const char* name : {"Aut_time", "Carica_adj"}) {
        EXPECT_EQ(scaledText(dataField(name), number(dataField(name), base)), "-") << name;
    }
}

TEST(SetBits, AreNamedFromTheLeastSignificantOn) {
    EXPECT_EQ(setBits(dataField("alarm"), 0x81), (std::vector<std::string>{"Warning", "Battery_Low"}));
    EXPECT_EQ(setBits(dataField("PMStatus"), 0x2001), (std::vector<std::string>{"wrongPower", "bitCmdUnsupported"}));
    EXPECT_TRUE(setBits(dataField("alarm"), 0).empty());
}

TEST(FieldText, NeedsNoEnd) {
    const char field[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(ugwctl::fieldText(field, sizeof(field)), "abcd");
    EXPECT_EQ(ugwctl::fieldText("ab\0d", 4), "ab");
    EXPECT_EQ(ugwctl::fieldText("a   ", 4), "a");
    EXPECT_EQ(ugwctl::fieldText("    ", 4), "");
}

TEST(Printable, LetsNoControlCharacterThrough) {
    for (int byte = 0; byte < 256; ++byte) {
        for (const char c : ugwctl::printable(std::string(1, static_cast<char>(byte)))) {
            EXPECT_TRUE(c >= 0x20 && c < 0x7F) << byte;
        }
    }
    EXPECT_EQ(ugwctl::printable("\x1b[2J\x9b"), "\\x1B[2J\\x9B");
}

TEST(Paint, AddsNothingWhereItIsOff) {
    EXPECT_EQ(ugwctl::Paint(false).red("x"), "x");
    EXPECT_EQ(ugwctl::Paint(true).red("x"), "\x1b[31mx\x1b[0m");
}

TEST(StateNames, AreThoseOfTheRecord) {
    std::ifstream header(UGW_SOURCE_DIR "/Common/StatusBits.h");
    const std::regex bit("\\s+uint8 (\\w+) : 1;");
    std::vector<std::string> names;
    for (std::string line; std::getline(header, line);) {
        std::smatch match;
        if (std::regex_match(line, match, bit)) {
            names.push_back(match[1]);
        }
    }
    EXPECT_EQ(names, std::vector<std::string>(std::begin(ugwctl::stateNames), std::end(ugwctl::stateNames)));
}

TEST(SetStates, ComeWorstClassFirst) {
    statusCoding_t coding;
    std::memset(static_cast<void*>(&coding), 0, sizeof(coding));
    coding.bits.RemoteOffCommand = 1;
    coding.bits.PowerOn = 1;
    coding.bits.MainsUnderVoltageL1 = 1;
    coding.bits.ConfigurationDataCorrupted = 1;
    coding.bits.FanFailure = 1;
    coding.bits.AuxiliaryPowerFail = 1;
    coding.bits.ShutdownImminent = 1;
    coding.bits.AnomalyOnRemoreUnit = 1;
    char states[NUMRCBYTE];
    std::memcpy(states, coding.states, sizeof(states));
    std::vector<std::string> lines;
    for (const ugwctl::State& state : ugwctl::setStates(states)) {
        lines.push_back(std::string(stateClassName(state.stateClass)) + ": " + stateLine(state));
    }
    EXPECT_EQ(lines,
              (std::vector<std::string>{"lock: [L01] AUXILIARY POWER FAIL", "fault: [F36] FAN FAILURE",
                                        "anomaly: [A01] CONFIG. DATA CORRUPTED", "anomaly: [A08] MAINS UNDERVOLTAGE L1",
                                        "anomaly: [A48] AnomalyOnRemoreUnit", "warning: [W03] SHUTDOWN IMMINENT",
                                        "command: [C01] REMOTE OFF COMMAND", "event: POWER ON"}));
}

TEST(SetStates, KnowAllOfThem) {
    char states[NUMRCBYTE];
    std::memset(states, 0xFF, sizeof(states));
    const std::vector<ugwctl::State> all = ugwctl::setStates(states);
    ASSERT_EQ(all.size(), 176U);
    int counts[ugwctl::STATE_CLASSES] = {};
    for (const ugwctl::State& state : all) {
        ++counts[static_cast<int>(state.stateClass)];
    }
    EXPECT_EQ(std::vector<int>(std::begin(counts), std::end(counts)), (std::vector<int>{48, 48, 48, 8, 8, 16}));
}

}  // namespace
