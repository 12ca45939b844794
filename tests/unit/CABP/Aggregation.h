// A plant whose cabinets are well, for the tests of the aggregation: records made by hand, passes in virtual time, and
// what a pass leaves in the root and in the status file.
#ifndef TESTS_UNIT_CABP_AGGREGATION_H
#define TESTS_UNIT_CABP_AGGREGATION_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "CABP/ThreadCABP.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/Replaced.h"
#include "support/VirtualClock.h"

namespace aggregation {

using support::LogCapture;
using support::Plant;
using support::VirtualClock;

constexpr std::int64_t MS = 1000;
constexpr std::int64_t SECOND = 1000 * MS;
constexpr std::int64_t INTERVAL = 201 * MS;

/// Wall time of the virtual clock.
inline time32_t now() {
    return static_cast<time32_t>(VirtualClock::wall() / SECOND);
}

/// Differences of two records, byte by byte.
template <typename Record>
testing::AssertionResult sameBytes(const Record& expected, const Record& actual) {
    const auto* const e = reinterpret_cast<const uint8*>(&expected);
    const auto* const a = reinterpret_cast<const uint8*>(&actual);
    testing::AssertionResult result = testing::AssertionFailure();
    bool same = true;
    for (std::size_t i = 0; i < sizeof(Record); ++i) {
        if (e[i] != a[i]) {
            char line[64];
            std::snprintf(line, sizeof(line), "\n  at %zu: expected 0x%02X, is 0x%02X", i, e[i], a[i]);
            result << line;
            same = false;
        }
    }
    return same ? testing::AssertionSuccess() : result;
}

class AggregationTest : public testing::Test {
  protected:
    explicit AggregationTest(std::uint8_t own = 0xEA, const std::string& boxes = "ABCD")
        : letters(boxes), plant(own, boxes) {
        plant.registerAll();
        for (const char letter : letters) {
            makeWell(letter);
        }
        speaking = letters;
    }

    /// A cabinet that feeds its load from the line and has no alarm; its measures differ from those of the others.
    void makeWell(char letter) {
        const int n = letter - 'A';
        virtualNode_t& node = plant.box(letter);
        node.nominal.timestamp = now();
        node.nominal.VA = 20000u + 100u * static_cast<uint32>(n);
        node.nominal.W = 18000u + 100u * static_cast<uint32>(n);
        descUpsBox_t& box = node.desc.upsBox;
        std::memset(&box, 0, sizeof(box));
        box.timestamp = now();
        setElemAlarm(box.subSystem.UPSShelter[0], faultAlarm);  // as a card tells of a module that is there
        box.externalSwitchStatus.SWIN = 1;
        box.externalSwitchStatus.SWBYP = 1;
        box.externalSwitchStatus.SWBATT_EXT = 1;
        box.externalSwitchStatus.EPO = 1;
        box.Batteries.timestamp = now();
        box.Batteries.barsPosV = static_cast<int16>(240 + n);
        box.Batteries.barsNegV = static_cast<int16>(230 + n);
        dataObject_t& ups = box.Ups;
        ups.timestamp = now();
        ups.status.Output_Powered = 1;
        ups.status.Line_Present = 1;
        ups.status.SWOUT = 1;
        ups.extStatus.UPS_OK = 1;
        ups.switchStatus.Q1 = 1;
        ups.switchStatus.Bt_present = 1;
        for (int l = 0; l < 3; ++l) {
            ups.Load[l] = static_cast<int16>(40 + 10 * l + n);
            ups.Va[l] = 3000 + 10 * l + n;
            ups.VAR[l] = 700;
            ups.Watt[l] = 2800 + 10 * l + n;
            ups.Vin[l] = static_cast<uint16>(226 + l + n);
            ups.Uin[l] = static_cast<uint16>(390 + l + n);
            ups.Iin[l] = static_cast<uint32>(120 + l + n);
            ups.Vbyp[l] = static_cast<uint16>(228 + l + n);
            ups.Ubyp[l] = static_cast<uint16>(396 + l + n);
            ups.Vout[l] = static_cast<uint16>(230 + l + n);
            ups.Uout[l] = static_cast<uint16>(398 + l + n);
            ups.Iout[l] = 110 + l + n;
            ups.Iout_pk[l] = 200 + l + n;
        }
        ups.maxLoad = static_cast<int16>(70 + n);
        ups.Frq_in = static_cast<uint16>(498 + n);
        ups.Frq_byp = static_cast<uint16>(499 + n);
        ups.Frq_out = static_cast<uint16>(500 + n);
        ups.Aut_time = static_cast<uint16>(3600 + n);
        ups.Carica_adj = static_cast<uint8>(90 + n);
        ups.VbatRS = static_cast<uint16>(540 + n);
        ups.Vbatp = static_cast<uint16>(270 + n);
        ups.Vbatn = static_cast<uint16>(271 + n);
        ups.Ibatp = 10 + n;
        ups.Ibatn = -10 - n;
        ups.Temp0 = static_cast<uint8>(30 + n);
        ups.Temp1 = static_cast<uint8>(40 + n);
        ups.Temp2 = static_cast<uint8>(41 + n);
        ups.Temp3 = static_cast<uint8>(22 + n);
        ups.Temp4 = static_cast<uint8>(23 + n);
        ups.Temp5 = static_cast<uint8>(24 + n);
        ups.Temp6 = static_cast<uint8>(25 + n);
        ups.Cent_kwh = 123456;
    }

    /// What a plant of four cabinets made so gives, once it has run for a while.
    descSys_t expectedWell() {
        descSys_t sys = {};
        sys.Ups.timestamp = now();
        sys.Ups.status.Output_Powered = 1;
        sys.Ups.status.Line_Present = 1;
        sys.Ups.status.SWOUT = 1;
        sys.Ups.extStatus.UPS_OK = 1;
        sys.Ups.switchStatus.Q1 = 1;
        sys.Ups.switchStatus.Bt_present = 1;
        for (int l = 0; l < 3; ++l) {
            sys.Ups.Load[l] = static_cast<int16>(41 + 10 * l);  // 41.5
            sys.Ups.Va[l] = 4 * (3000 + 10 * l) + 6;
            sys.Ups.Watt[l] = 4 * (2800 + 10 * l) + 6;
            sys.Ups.Vin[l] = static_cast<uint16>(227 + l);
            sys.Ups.Uin[l] = static_cast<uint16>(391 + l);
            sys.Ups.Iin[l] = static_cast<uint32>(4 * (120 + l) + 6);
            sys.Ups.Vbyp[l] = static_cast<uint16>(229 + l);
            sys.Ups.Ubyp[l] = static_cast<uint16>(397 + l);
            sys.Ups.Vout[l] = static_cast<uint16>(231 + l);
            sys.Ups.Uout[l] = static_cast<uint16>(399 + l);
            sys.Ups.Iout[l] = 4 * (110 + l) + 6;
            sys.Ups.Iout_pk[l] = 4 * (200 + l) + 6;
        }
        sys.Ups.maxLoad = 73;
        sys.Ups.Frq_in = 499;
        sys.Ups.Frq_byp = 500;
        sys.Ups.Frq_out = 501;
        sys.Ups.Aut_time = 3600;
        sys.Ups.Carica_adj = 90;
        sys.Ups.VbatRS = 540;
        sys.Ups.Vbatp = 270;
        sys.Ups.Vbatn = 271;
        sys.Ups.Ibatp = 46;
        sys.Ups.Ibatn = -46;
        sys.Ups.Temp0 = 33;
        sys.Ups.Temp1 = 43;
        sys.Ups.Temp2 = 44;
        sys.Ups.Temp3 = 25;
        sys.Ups.Temp4 = 26;
        sys.Ups.Temp5 = 27;
        sys.Ups.Temp6 = 28;
        sys.Batteries.barsPosV = 241;
        sys.Batteries.barsNegV = 231;
        for (elemDesc_t& box : sys.subSystem.UPSBox) {
            setElemAlarm(box, noneAlarm);
        }
        sys.externalSwitchStatus.SWIN = 1;
        sys.externalSwitchStatus.SWBYP = 1;
        sys.externalSwitchStatus.SWBATT_EXT = 1;
        sys.externalSwitchStatus.EPO = 1;
        return sys;
    }

    /// One pass, after `us` in which the cabinets that speak have been heard.
    void pass(std::int64_t us = INTERVAL) {
        VirtualClock::advance(us);
        for (const char letter : speaking) {
            plant.box(letter).desc.upsBox.Ups.timestamp = now();
        }
        plant.bus().AggregateBox();
    }
    /// Passes of one second each.
    void passes(int seconds) {
        for (int i = 0; i < seconds; ++i) {
            pass(SECOND);
        }
    }
    /// The first passes after the start compare with a root that is still empty.
    void settle() {
        const LogCapture quiet;
        pass();
        pass();
    }

    descUpsBox_t& box(char letter) { return plant.box(letter).desc.upsBox; }
    dataObject_t& ups(char letter) { return box(letter).Ups; }
    descSys_t& root() { return plant.root().desc.sys; }
    dataObject_t& sys() { return root().Ups; }
    alarmStatus_t itemState(char letter) { return elemAlarm(root().subSystem.UPSBox[letter - 'A']); }

    std::string json() {
        std::ifstream file(plant.dir().path("vu.json"), std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }
    bool jsonHas(const std::string& text) { return json().find(text) != std::string::npos; }
    /// What stands between the brackets, on one line: "SWIN_OPEN SWBYP_OPEN".
    std::string alarms() {
        const std::string text = json();
        const std::string head = "\"statusAlarms\":[\n";
        const std::size_t from = text.find(head);
        const std::size_t to = text.find("],\n\"UPSFAILURE\"");
        if (from == std::string::npos || to == std::string::npos) {
            return "no list of alarms";
        }
        std::string names;
        for (const char c : text.substr(from + head.size(), to - from - head.size())) {
            if (c == ',') {
                names += ' ';
            } else if (c != '\n' && c != '"') {
                names += c;
            }
        }
        return names;
    }
    bool failure() { return jsonHas("],\n\"UPSFAILURE\": true}"); }

    std::string letters;
    std::string speaking;
    Plant plant;
};

}  // namespace aggregation

#endif
