// The two scans of the system aggregation: how the fields of the cabinets' records come together in the system's.
#include <cstddef>

#include "CABP/AggregateInternal.h"
#include "Common/LogStep.h"

namespace aggr {
namespace {

// At or below these a value is a dead input and no reading. Voltages in V, frequencies in tenths of Hz.
constexpr uint16 LN_DEAD = 79;         // line to neutral
constexpr uint16 LL_DEAD = 138;        // line to line
constexpr uint16 FREQ_DEAD = 19;       // frequencies
constexpr uint16 VBAT_DEAD = 99;       // battery voltages
constexpr int16 BARS_DEAD = 99;        // battery bars
constexpr uint16 AUTONOMY_VBAT = 100;  // one more than VBAT_DEAD: a battery that just comes up tells no autonomy yet

constexpr uint16 NOTHING16 = 0xFFFF;  // start value of a minimum
constexpr uint8 NOTHING8 = 0xFF;

// Bits of which the system has each that any cabinet has. The others are counted, or are the system's own.
constexpr uint8 ALARM_ORED = 0x37;      // Warning, Anomaly, Fault, Alarm_Temperature, Alarm_Overload
constexpr uint8 STATUS_ORED = 0x3D;     // Output_Powered, On_Bypass, Line_Present, Shutdown_Active, Shutdown_Imminent
constexpr uint8 EXTSTATUS_ORED = 0x7F;  // all but UPS_OK
constexpr uint8 BOXSTATUS_ORED = 0xF7;  // all but SWBATT
constexpr uint8 EXTERNALSWITCH_ORED = 0x7F;  // all but EPO

// Each line of a three-phase field of elements of `size` bytes.
#define LINES_(field, size) \
    offsetof(dataObject_t, field), offsetof(dataObject_t, field) + (size), offsetof(dataObject_t, field) + 2 * (size)

// 32-bit fields that add up.
constexpr std::size_t sumTable[] = {
    LINES_(Va, 4),
    LINES_(Watt, 4),
    LINES_(Iin, 4),
    LINES_(Iout, 4),
    LINES_(Iout_pk, 4),
    offsetof(dataObject_t, Ibatp),
    offsetof(dataObject_t, Ibatn),
};

// 32-bit fields that the system never shows negative.
constexpr std::size_t notNegativeTable[] = {LINES_(Watt, 4), LINES_(Va, 4), LINES_(Iout_pk, 4)};

#undef LINES_

struct ReadingRow {
    std::size_t offset;  // of a uint16 in dataObject_t
    uint16 dead;
};

#define LINES_(field, dead)                                                             \
    {offsetof(dataObject_t, field), dead}, {offsetof(dataObject_t, field) + 2, dead}, { \
        offsetof(dataObject_t, field) + 4, dead                                         \
    }

constexpr ReadingRow meanTable[] = {
    LINES_(Vin, LN_DEAD),
    LINES_(Vbyp, LN_DEAD),
    LINES_(Vout, LN_DEAD),
    LINES_(Uin, LL_DEAD),
    LINES_(Ubyp, LL_DEAD),
    LINES_(Uout, LL_DEAD),
    {offsetof(dataObject_t, Frq_in), FREQ_DEAD},
    {offsetof(dataObject_t, Frq_byp), FREQ_DEAD},
    {offsetof(dataObject_t, Frq_out), FREQ_DEAD},
};
static_assert(sizeofarray(meanTable) == MEANFIELDS);

#undef LINES_

constexpr ReadingRow lowTable[] = {
    {offsetof(dataObject_t, VbatRS), VBAT_DEAD},
    {offsetof(dataObject_t, Vbatp), VBAT_DEAD},
    {offsetof(dataObject_t, Vbatn), VBAT_DEAD},
};
static_assert(sizeofarray(lowTable) == LOWFIELDS);
constexpr std::size_t LOW_VBATP = 1;
static_assert(lowTable[LOW_VBATP].offset == offsetof(dataObject_t, Vbatp));

// Temp0 to Temp6 stand one after the other.
constexpr std::size_t FIRST_TEMP = offsetof(dataObject_t, Temp0);
constexpr std::size_t LAST_TEMP = offsetof(dataObject_t, Temp6);

void addStates(Pass& pass, const dataObject_t& ups) {
    dataObject_t& sys = pass.tempSys.Ups;
    Contributors& counts = pass.contributors;

    sys.alarm.byte |= ups.alarm.byte & ALARM_ORED;
    counts.boxUpsInLock += ups.alarm.Lock;
    counts.boxUpsInBypassBad += ups.alarm.Bypass_Bad;
    counts.boxUpsInBatteryLow += ups.alarm.Battery_Low;

    sys.status.byte |= ups.status.byte & STATUS_ORED;
    counts.boxUpsInOutputPowerd += ups.status.Output_Powered;
    counts.boxWrongPowered += ups.status.Output_Powered != pass.liveSys.Ups.status.Output_Powered ? 1 : 0;
    counts.boxUpsInBatteryWorking += ups.status.Battery_Working;

    sys.extStatus.byte |= ups.extStatus.byte & EXTSTATUS_ORED;
    if (ups.extStatus.UPS_OK == 0) {
        sys.extStatus.UPS_OK = 0;
    }
    sys.switchStatus.byte |= ups.switchStatus.byte;
    sys.PMStatus.bytes[0] |= ups.PMStatus.bytes[0];
    if (ups.PMStatus.bitCmdUnsupported != 0) {
        sys.PMStatus.bitCmdUnsupported = 1;
    }
}

void addMeasures(Pass& pass, const dataObject_t& ups) {
    dataObject_t& sys = pass.tempSys.Ups;
    Contributors& counts = pass.contributors;

    sys.maxLoad = MAX<int16>(sys.maxLoad, ups.maxLoad);
    for (const std::size_t offset : sumTable) {
        setFieldAt<uint32>(sys, offset, fieldAt<uint32>(sys, offset) + fieldAt<uint32>(ups, offset));
    }
    if (ups.status.Output_Powered != 0) {
        for (int line = LINE1; line < LINES; ++line) {
            counts.Load[line].add(static_cast<uint32>(ups.Load[line]));
        }
    }
    for (std::size_t i = 0; i < MEANFIELDS; ++i) {
        const uint16 value = fieldAt<uint16>(ups, meanTable[i].offset);
        if (value > meanTable[i].dead) {
            counts.means[i].add(value);
        }
    }
    for (std::size_t i = 0; i < LOWFIELDS; ++i) {
        const uint16 value = fieldAt<uint16>(ups, lowTable[i].offset);
        if (value > lowTable[i].dead) {
            setFieldAt(sys, lowTable[i].offset, MIN(fieldAt<uint16>(sys, lowTable[i].offset), value));
            ++counts.lowCnt[i];
        }
    }
    if (ups.Vbatp > AUTONOMY_VBAT) {
        sys.Aut_time = MIN<uint16>(sys.Aut_time, ups.Aut_time);
        sys.Carica_adj = MIN<uint8>(sys.Carica_adj, ups.Carica_adj);
    }
    for (std::size_t offset = FIRST_TEMP; offset <= LAST_TEMP; ++offset) {
        setFieldAt(sys, offset, MAX(fieldAt<uint8>(sys, offset), fieldAt<uint8>(ups, offset)));
    }
}

}  // namespace

void addContributor(Pass& pass, const virtualNode_t& node) {
    const descUpsBox_t& box = node.desc.upsBox;
    ++pass.contributors.actvElem;
    pass.VA += node.nominal.VA;
    pass.W += node.nominal.W;
    addStates(pass, box.Ups);
    addMeasures(pass, box.Ups);
    if (box.MCUMUStatus.commErrorMU != 0) {
        pass.tempSys.MCUMUStatus.commErrorMU = 1;
    }
}

void finishValues(Pass& pass) {
    dataObject_t& sys = pass.tempSys.Ups;
    const Contributors& counts = pass.contributors;

    for (const std::size_t offset : notNegativeTable) {
        setFieldAt<int32>(sys, offset, MAX<int32>(0, fieldAt<int32>(sys, offset)));
    }
    for (std::size_t i = 0; i < MEANFIELDS; ++i) {
        setFieldAt(sys, meanTable[i].offset, static_cast<uint16>(counts.means[i].value()));
    }
    if (sys.Aut_time == NOTHING16 && counts.lowCnt[LOW_VBATP] == 0) {
        sys.Aut_time = 0;
        if (sys.switchStatus.Q1 != 0) {
            DBG_E_OF(OPERATION, "Nessun armadio acceso ha comunicato l'autonomia\n");
        }
    }
    if (sys.Carica_adj == NOTHING8) {
        sys.Carica_adj = 0;
    }
    for (std::size_t i = 0; i < LOWFIELDS; ++i) {
        if (counts.lowCnt[i] == 0) {
            setFieldAt<uint16>(sys, lowTable[i].offset, 0);
        }
    }
}

void addSwitches(Pass& pass, const descUpsBox_t& box) {
    descSys_t& sys = pass.tempSys;
    Switches& counts = pass.switches;

    ++counts.actvElem;
    if (box.Ups.status.SWOUT == 0) {
        sys.Ups.status.SWOUT = 0;
        ++counts.boxUpsSWOUTOpened;
    }
    if (box.Ups.status.SWMB != 0) {
        sys.Ups.status.SWMB = 1;
        ++counts.boxUpsSWMBClosed;
    }
    sys.boxStatus.byte |= box.boxStatus.byte & BOXSTATUS_ORED;
    const externalSwitchStatus_t& external = box.externalSwitchStatus;
    sys.externalSwitchStatus.byte |= external.byte & EXTERNALSWITCH_ORED;
    if (external.EPO == 0) {
        sys.externalSwitchStatus.EPO = 0;
    }
    counts.boxUpsSWINOpened += external.SWIN == 0 ? 1 : 0;
    counts.boxUpsSWBYPOpened += external.SWBYP == 0 ? 1 : 0;
    counts.boxUpsSWBATT_EXTOpened += external.SWBATT_EXT == 0 ? 1 : 0;
    if (box.MCUMUStatus.AnomalyMCU != 0) {
        sys.MCUMUStatus.AnomalyMCU = 1;
    }
    if (box.Batteries.barsPosV > BARS_DEAD) {
        counts.barsPosV.add(static_cast<uint32>(box.Batteries.barsPosV));
    }
    if (box.Batteries.barsNegV > BARS_DEAD) {
        counts.barsNegV.add(static_cast<uint32>(box.Batteries.barsNegV));
    }
}

}  // namespace aggr
