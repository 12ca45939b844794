// The tables of the records. Offsets and widths come from the records themselves; units are those of the lines as far
// as they are known: what has no unit here is shown as it is stored.
#include <iterator>
#include <type_traits>

#include "tools/ugwctl/Fields.h"

namespace ugwctl {
namespace {

constexpr Unit VOLT = {"V", 1, 0, "volts", 1};
constexpr Unit TENTH_AMPERE = {"A", 0.1, 1, "amperes", 1};
constexpr Unit AMPEREHOUR = {"Ah", 1, 0, "ampere_hours", 1};
constexpr Unit TENTH_HERTZ = {"Hz", 0.1, 1, "hertz", 1};
constexpr Unit WATT = {"W", 1, 0, "watts", 1};
constexpr Unit VOLTAMPERE = {"VA", 1, 0, "voltamperes", 1};
constexpr Unit REACTIVE = {"var", 1, 0, "vars", 1};
constexpr Unit PERCENT = {"%", 1, 0, "ratio", 0.01};
constexpr Unit MINUTE = {"min", 1, 0, "seconds", 60};
constexpr Unit DEGREE = {"C", 1, 0, "celsius", 1};

// Numbers that stand for "no value": start values of a minimum nobody has contributed to.
constexpr std::int64_t NO_WORD = 0xFFFF;
constexpr std::int64_t NO_BYTE = 0xFF;

struct Place {
    const char* name;
    std::size_t offset;
    std::size_t width;
    std::size_t count;
};
template <typename T>
constexpr std::size_t countOf = std::extent_v<T> == 0 ? 1 : std::extent_v<T>;
#define AT(type, member)                                                                        \
    Place {                                                                                     \
#member, offsetof(type, member), sizeof(std::remove_extent_t <decltype(type::member)>), \
            countOf < decltype(type::member)>                                                   \
    }
// A text is one field, however many characters it has.
#define TEXT_AT(type, member)                                    \
    Place {                                                      \
#member, offsetof(type, member), sizeof(type::member), 1 \
    }

constexpr Field make(const Place& place, Kind kind) {
    return Field{place.name,
                 static_cast<uint16>(place.offset),
                 static_cast<uint8>(place.width),
                 static_cast<uint8>(place.count),
                 kind,
                 nullptr,
                 nullptr,
                 {nullptr, 0},
                 nullptr,
                 -1,
                 0,
                 0xFFFFFFFF};
}
constexpr Field measure(const Place& place, const Unit* unit, const char* metric, std::int64_t none = -1) {
    Field field = make(place, Kind::Unsigned);
    field.unit = unit;
    field.metric = metric;
    field.none = none;
    return field;
}
constexpr Field signedMeasure(const Place& place, const Unit* unit, const char* metric) {
    Field field = measure(place, unit, metric);
    field.kind = Kind::Signed;
    return field;
}
template <std::size_t N>
constexpr Field choice(const Place& place, const Name (&names)[N], uint32 mask = 0xFFFFFFFF) {
    Field field = make(place, Kind::Choice);
    field.names = {names, N};
    field.mask = mask;
    return field;
}
template <std::size_t N>
constexpr Field flags(const Place& place, const Name (&names)[N], const char* metric, uint32 mask = 0xFFFFFFFF) {
    Field field = choice(place, names, mask);
    field.kind = Kind::Flags;
    field.metric = metric;
    return field;
}
constexpr Field group(const Place& place, const Record* record) {
    Field field = make(place, Kind::Group);
    field.record = record;
    return field;
}
template <std::size_t N>
constexpr Record recordOf(const Field (&fields)[N]) {
    return {fields, N};
}

// ---------------------------------------------------------------------------------------------------------------
// Values and bits

constexpr Name kinds[] = {{sysNode, "system"},    {upsBoxNode, "cabinet"},     {battBoxNode, "battery cabinet"},
                          {moduleNode, "module"}, {bypassNode, "bypass unit"}, {extNode, "extension"}};
constexpr Name commands[] = {
    {CMD_SHUTDOWN, "shutdown"}, {CMD_REBOOT, "restore"}, {CMD_DELETE, "cancel"}, {CMD_TESTBATT, "battery-test"},
    {CMD_QPR_OFF, "off"},       {CMD_QPR_POWERON, "on"}, {CMD_NONE, "none"}};
constexpr Name elements[] = {{commLostAlarm, "lost"},   {noneAlarm, "none"},   {warningAlarm, "warning"},
                             {anomalyAlarm, "anomaly"}, {faultAlarm, "fault"}, {lockAlarm, "lock"}};
// A module that is heard has the value of a fault here, whatever it tells.
constexpr Name shelters[] = {{commLostAlarm, "lost"}, {noneAlarm, "none"}, {faultAlarm, "heard"}};
constexpr Name ioConfigurations[] = {{MM, "MM"}, {MT, "MT"}, {TM, "TM"}, {TT, "TT"}};
constexpr Name upsTypes[] = {{LineInt_StepWave, "LineInt_StepWave"},
                             {LineInt_SinWave, "LineInt_SinWave"},
                             {OnLine, "OnLine"},
                             {OnLineANDLineInt, "OnLineANDLineInt"},
                             {ATS, "ATS"},
                             {STS, "STS"},
                             {MDU, "MDU"},
                             {ComboBox, "ComboBox"},
                             {PowerBox, "PowerBox"},
                             {Power25kBox, "Power25kBox"}};
constexpr Name boosts[] = {{NoBoost, "NoBoost"}, {Boost, "Boost"}, {DoubleBoost, "DoubleBoost"}};
constexpr Name bucks[] = {{NoBuck, "NoBuck"}, {Buck, "Buck"}, {DoubleBuck, "DoubleBuck"}};
constexpr Name errorControls[] = {{CHKSUM, "CHKSUM"}, {CRC, "CRC"}};
constexpr Name powerShares[] = {{NoPWRSHARE, "NoPWRSHARE"}, {OneSocket, "OneSocket"}};
constexpr Name benches[] = {{OneBench, "OneBench"}, {TwoBenches, "TwoBenches"}};
constexpr Name parallels[] = {
    {Single, "Single"}, {ParallelUPS_Slave, "ParallelUPS_Slave"}, {ParallelUPS_Master, "ParallelUPS_Master"}};
constexpr Name queriesDone[] = {{0, "GIexecuted"}, {1, "GEexecuted"}};

constexpr Name alarmBits[] = {{0, "Warning"},           {1, "Anomaly"},        {2, "Fault"},      {3, "Lock"},
                              {4, "Alarm_Temperature"}, {5, "Alarm_Overload"}, {6, "Bypass_Bad"}, {7, "Battery_Low"}};
constexpr Name statusBits[] = {{0, "Output_Powered"},  {1, "Battery_Working"},   {2, "On_Bypass"}, {3, "Line_Present"},
                               {4, "Shutdown_Active"}, {5, "Shutdown_Imminent"}, {6, "SWOUT"},     {7, "SWMB"}};
constexpr Name extStatusBits[] = {{0, "Clock_Update"},     {1, "isMaster"},        {2, "Eco_Mode"},
                                  {3, "Test_in_progress"}, {4, "Replace_Battery"}, {5, "Parallel_Link_Open"},
                                  {6, "Battery_Charging"}, {7, "UPS_OK"}};
constexpr Name switchStatusBits[] = {{0, "Q1"},         {1, "LoadOnBypass_Cmd"},        {2, "BypassDisabled_Cmd"},
                                     {3, "Bt_present"}, {4, "RemoteCBOff_Cmd"},         {5, "RemoteEco_Cmd"},
                                     {6, "FreeSW6"},    {7, "RemoteBatteryWorking_Cmd"}};
constexpr Name pmStatusBits[] = {{0, "wrongPower"},
                                 {1, "inputDisabled"},
                                 {2, "commError"},
                                 {3, "bypassBadAnomaly"},
                                 {4, "batteryWorkingAnomaly"},
                                 {5, "outputPoweredAnomaly"},
                                 {6, "differentFirmwareAnomaly"},
                                 {7, "someBatteryDisconnect"},
                                 {8, "SWINCabinetAnomaly"},
                                 {9, "SWBYPCabinetAnomaly"},
                                 {10, "SWMBCabinetAnomaly"},
                                 {11, "SWOUTCabinetAnomaly"},
                                 {12, "SWBATT_EXTCabinetAnomaly"},
                                 {13, "bitCmdUnsupported"},
                                 {14, "FreePMS14"},
                                 {15, "FreePMS15"}};
constexpr Name stringBits[] = {{0, "lost"},
                               {1, "voltageFault"},
                               {2, "currentFault"},
                               {3, "insertFault"},
                               {4, "chargeOvercurrent"},
                               {5, "warningDischargeCurrent"},
                               {6, "alarmDischargeCurrent"},
                               {7, "notPresent"}};
constexpr Name sysStatusBits[] = {{0, "ServiceUPS"},     {1, "ServiceBattery"}, {2, "FreeSYS2"},
                                  {3, "FreeSYS3"},       {4, "SWMBOpening"},    {5, "SWMBClosing"},
                                  {6, "LostRedundancy"}, {7, "LowRedundancy"}};
constexpr Name boxStatusBits[] = {{0, "NotPresentString"}, {1, "ReplaceString"}, {2, "Fault"},   {3, "SWBATT"},
                                  {4, "HighTemp"},         {5, "HighHygro"},     {6, "Anomaly"}, {7, "Warning"}};
constexpr Name externalSwitchBits[] = {{0, "Fault_PWR1"}, {1, "Fault_PWR2"}, {2, "SWIN"},       {3, "FreeSW3"},
                                       {4, "SWBYP"},      {5, "FreeSW5"},    {6, "SWBATT_EXT"}, {7, "EPO"}};
constexpr Name battExternalSwitchBits[] = {{0, "Fault_PWR1"}, {1, "Fault_PWR2"}, {2, "FreeSW2"}, {3, "FreeSW3"},
                                           {4, "FreeSW4"},    {5, "FreeSW5"},    {6, "FreeSW6"}, {7, "FreeSW7"}};
constexpr Name mcuBits[] = {{0, "Slot1Fault"}, {1, "Slot2Fault"}, {2, "FreeMCU2"}, {3, "FreeMCU3"},
                            {4, "FreeMCU4"},   {5, "FreeMCU5"},   {6, "FreeMCU6"}, {7, "FreeMCU7"}};
// The root has a count in the upper three bits, a cabinet has none.
constexpr Name sysMCUMUBits[] = {
    {0, "commErrorMCU"}, {1, "commErrorMU"}, {2, "AnomalyMCU"}, {3, "FreePMS3"}, {4, "FreePMS4"}};
constexpr uint32 SYS_MCUMU_FLAGS = 0x1F;
constexpr uint32 BYPASS_OFF_MASK = 0xE0;
constexpr uint8 BYPASS_OFF_SHIFT = 5;
constexpr Name boxMCUMUBits[] = {{0, "commErrorMCU"}, {1, "commErrorMU"}, {2, "AnomalyMCU"}, {3, "FreePMS3"},
                                 {4, "FreePMS4"},     {5, "FreePMS5"},    {6, "FreePMS6"},   {7, "FreePMS7"}};
constexpr Name muBits[] = {{0, "commErrorMU"}, {1, "FreePMS1"}, {2, "FreePMS2"}, {3, "FreePMS3"},
                           {4, "FreePMS4"},    {5, "FreePMS5"}, {6, "FreePMS6"}, {7, "FreePMS7"}};
// The upper bits of an element have no meaning.
constexpr uint32 ELEMENT_MASK = 0x07;

// ---------------------------------------------------------------------------------------------------------------
// Records

#define AT_ID(member) AT(identification_t, member)
constexpr Field identificationFields[] = {
    make(AT_ID(timestamp), Kind::Time),
    make(TEXT_AT(identification_t, SN), Kind::Text),
    make(TEXT_AT(identification_t, Model), Kind::Text),
    make(TEXT_AT(identification_t, SWVer), Kind::Text),
    choice(AT_ID(IO_Cfg), ioConfigurations),
    choice(AT_ID(UPS_Type), upsTypes),
    choice(AT_ID(Boost_Cfg), boosts),
    choice(AT_ID(Buck_Cfg), bucks),
    choice(AT_ID(Error_CTRL), errorControls),
    choice(AT_ID(PwrShareCfg), powerShares),
    choice(AT_ID(BattBenches), benches),
    measure(AT_ID(NBattForBench), nullptr, nullptr),
    choice(AT_ID(ParallelInfo), parallels),
    make(TEXT_AT(identification_t, tbdGI), Kind::Bytes),
    make(TEXT_AT(identification_t, SN_AUX), Kind::Text),
    make(TEXT_AT(identification_t, SWVer_AUX), Kind::Text),
    make(TEXT_AT(identification_t, tbdGE), Kind::Bytes),
    flags(AT_ID(partialInfo), queriesDone, nullptr, GIexecuted | GEexecuted),
};
constexpr Record identificationRecord = recordOf(identificationFields);

#define AT_NOM(member) AT(nominal_t, member)
constexpr Field nominalFields[] = {
    make(AT_NOM(timestamp), Kind::Time),
    measure(AT_NOM(VA), &VOLTAMPERE, "nominal_apparent_power"),
    measure(AT_NOM(W), &WATT, "nominal_power"),
    measure(AT_NOM(BatteryV), &VOLT, "nominal_battery_voltage"),
    measure(AT_NOM(BatteryAh), &AMPEREHOUR, "nominal_battery_capacity"),
    measure(AT_NOM(Vout), &VOLT, "nominal_output_voltage"),
    measure(AT_NOM(FreqOut), &TENTH_HERTZ, "nominal_output_frequency"),
};
constexpr Record nominalRecord = recordOf(nominalFields);

constexpr Field panelFields[] = {
    choice(AT(panel_t, value), commands),
    measure(AT(panel_t, delay_shut), nullptr, nullptr, NO_WORD),
    measure(AT(panel_t, delay_reboot), nullptr, nullptr, NO_WORD),
};
constexpr Record panelRecord = recordOf(panelFields);

#define AT_DATA(member) AT(dataObject_t, member)
constexpr Field dataFields[] = {
    make(AT_DATA(timestamp), Kind::Time),
    flags(AT_DATA(alarm), alarmBits, "alarm"),
    flags(AT_DATA(status), statusBits, "status"),
    flags(AT_DATA(extStatus), extStatusBits, "ext_status"),
    flags(AT_DATA(switchStatus), switchStatusBits, "switch_status"),
    flags(AT_DATA(PMStatus), pmStatusBits, "pm_status"),
    signedMeasure(AT_DATA(Load), &PERCENT, "output_load"),
    signedMeasure(AT_DATA(maxLoad), &PERCENT, "output_load_max"),
    signedMeasure(AT_DATA(Va), &VOLTAMPERE, "output_apparent_power"),
    signedMeasure(AT_DATA(VAR), &REACTIVE, "output_reactive_power"),
    signedMeasure(AT_DATA(Watt), &WATT, "output_power"),
    measure(AT_DATA(Aut_time), &MINUTE, "battery_autonomy", NO_WORD),
    measure(AT_DATA(Carica_adj), &PERCENT, "battery_charge", NO_BYTE),
    measure(AT_DATA(VbatRS), &VOLT, "battery_voltage", NO_WORD),
    measure(AT_DATA(Vbatp), &VOLT, "battery_positive_voltage", NO_WORD),
    measure(AT_DATA(Vbatn), &VOLT, "battery_negative_voltage", NO_WORD),
    signedMeasure(AT_DATA(Ibatp), &TENTH_AMPERE, "battery_positive_current"),
    signedMeasure(AT_DATA(Ibatn), &TENTH_AMPERE, "battery_negative_current"),
    measure(AT_DATA(Vin), &VOLT, "input_voltage"),
    measure(AT_DATA(Frq_in), &TENTH_HERTZ, "input_frequency"),
    measure(AT_DATA(Uin), &VOLT, "input_line_voltage"),
    measure(AT_DATA(Iin), &TENTH_AMPERE, "input_current"),
    measure(AT_DATA(Vbyp), &VOLT, "bypass_voltage"),
    measure(AT_DATA(Frq_byp), &TENTH_HERTZ, "bypass_frequency"),
    measure(AT_DATA(Ubyp), &VOLT, "bypass_line_voltage"),
    measure(AT_DATA(Vout), &VOLT, "output_voltage"),
    measure(AT_DATA(Frq_out), &TENTH_HERTZ, "output_frequency"),
    measure(AT_DATA(Uout), &VOLT, "output_line_voltage"),
    signedMeasure(AT_DATA(Iout), &TENTH_AMPERE, "output_current"),
    signedMeasure(AT_DATA(Iout_pk), &TENTH_AMPERE, "output_peak_current"),
    measure(AT_DATA(Temp0), &DEGREE, "system_temperature"),
    measure(AT_DATA(Temp1), &DEGREE, "inverter_temperature"),
    measure(AT_DATA(Temp2), &DEGREE, "rectifier_temperature"),
    measure(AT_DATA(Temp3), &DEGREE, "sensor3_temperature"),
    measure(AT_DATA(Temp4), &DEGREE, "sensor4_temperature"),
    measure(AT_DATA(Temp5), &DEGREE, "sensor5_temperature"),
    measure(AT_DATA(Temp6), &DEGREE, "sensor6_temperature"),
    measure(AT_DATA(Cent_kwh), nullptr, nullptr),
};
constexpr Record dataRecord = recordOf(dataFields);

constexpr Field shelterFields[] = {
    flags(AT(dataBattery_t, statusStrPos), stringBits, nullptr),
    flags(AT(dataBattery_t, statusStrNeg), stringBits, nullptr),
    signedMeasure(AT(dataBattery_t, halfStrPosV), nullptr, nullptr),
    signedMeasure(AT(dataBattery_t, halfStrNegV), nullptr, nullptr),
    signedMeasure(AT(dataBattery_t, strPosI), nullptr, nullptr),
    signedMeasure(AT(dataBattery_t, strNegI), nullptr, nullptr),
};
constexpr Record shelterRecord = recordOf(shelterFields);
constexpr Field batteriesFields[] = {
    make(AT(dataBatteries_t, timestamp), Kind::Time),
    group(AT(dataBatteries_t, shelter), &shelterRecord),
    signedMeasure(AT(dataBatteries_t, barsPosV), nullptr, nullptr),
    signedMeasure(AT(dataBatteries_t, barsNegV), nullptr, nullptr),
};
constexpr Record batteriesRecord = recordOf(batteriesFields);

constexpr Field cabSubSystemFields[] = {choice(AT(cabSubSystem_t, UPSBox), elements, ELEMENT_MASK)};
constexpr Record cabSubSystemRecord = recordOf(cabSubSystemFields);
constexpr Field upsSubSystemFields[] = {choice(AT(upsSubSystem_t, UPSShelter), shelters, ELEMENT_MASK)};
constexpr Record upsSubSystemRecord = recordOf(upsSubSystemFields);
constexpr Field battSubSystemFields[] = {choice(AT(battSubSystem_t, BATTShelter), elements, ELEMENT_MASK),
                                         choice(AT(battSubSystem_t, MUShelter), elements, ELEMENT_MASK)};
constexpr Record battSubSystemRecord = recordOf(battSubSystemFields);

constexpr Field bypassOff() {
    Field field = measure(AT(descSys_t, MCUMUStatus), nullptr, nullptr);
    field.name = "numBypassOff";
    field.mask = BYPASS_OFF_MASK;
    field.shift = BYPASS_OFF_SHIFT;
    return field;
}

#define AT_SYS(member) AT(descSys_t, member)
constexpr Field sysFields[] = {
    measure(AT_SYS(LoadRedundancy), nullptr, nullptr),
    group(AT_SYS(Ups), &dataRecord),
    group(AT_SYS(Batteries), &batteriesRecord),
    group(AT_SYS(subSystem), &cabSubSystemRecord),
    flags(AT_SYS(sysStatus), sysStatusBits, "system_status"),
    flags(AT_SYS(boxStatus), boxStatusBits, "box_status"),
    flags(AT_SYS(externalSwitchStatus), externalSwitchBits, "external_switch_status"),
    flags(AT_SYS(MCUMUStatus), sysMCUMUBits, "controller_status", SYS_MCUMU_FLAGS),
    bypassOff(),
};
#define AT_BOX(member) AT(descUpsBox_t, member)
constexpr Field upsBoxFields[] = {
    make(AT_BOX(timestamp), Kind::Time),
    group(AT_BOX(Ups), &dataRecord),
    group(AT_BOX(Batteries), &batteriesRecord),
    group(AT_BOX(subSystem), &upsSubSystemRecord),
    flags(AT_BOX(boxStatus), boxStatusBits, "box_status"),
    flags(AT_BOX(externalSwitchStatus), externalSwitchBits, "external_switch_status"),
    flags(AT_BOX(mcuStatus), mcuBits, "mcu_status"),
    flags(AT_BOX(MCUMUStatus), boxMCUMUBits, "controller_status"),
};
#define AT_BATT(member) AT(descBattBox_t, member)
constexpr Field battBoxFields[] = {
    flags(AT_BATT(boxStatus), boxStatusBits, "box_status"),
    flags(AT_BATT(externalSwitchStatus), battExternalSwitchBits, nullptr),
    flags(AT_BATT(MUStatus), muBits, nullptr),
    group(AT_BATT(data), &batteriesRecord),
    group(AT_BATT(subSystem), &battSubSystemRecord),
};
constexpr Field statusDetailFields[] = {
    make(AT(statusCoding_t, timestamp), Kind::Time),
    make(TEXT_AT(statusCoding_t, states), Kind::States),
};
constexpr Record statusDetailRecord = recordOf(statusDetailFields);
constexpr Field moduleFields[] = {
    group(AT(descModule_t, data), &dataRecord),
    group(AT(descModule_t, statusDetail), &statusDetailRecord),
};

constexpr Record sysRecord = recordOf(sysFields);
constexpr Record upsBoxRecord = recordOf(upsBoxFields);
constexpr Record battBoxRecord = recordOf(battBoxFields);
constexpr Record moduleRecord = recordOf(moduleFields);

// What stands under a node's `desc`, by its kind.
constexpr Field descFields[] = {
    group(AT(virtualNode_t, desc), &sysRecord),
    group(AT(virtualNode_t, desc), &upsBoxRecord),
    group(AT(virtualNode_t, desc), &battBoxRecord),
    group(AT(virtualNode_t, desc), &moduleRecord),
};
constexpr Record descRecords[] = {{&descFields[sysNode], 1},
                                  {&descFields[upsBoxNode], 1},
                                  {&descFields[battBoxNode], 1},
                                  {&descFields[moduleNode], 1}};

constexpr Field nodeFields[] = {
    group(AT(virtualNode_t, identification), &identificationRecord),
    group(AT(virtualNode_t, nominal), &nominalRecord),
    group(AT(virtualNode_t, panel), &panelRecord),
};
constexpr Field extensionFields[] = {
    measure(AT(extData_t, DevType), nullptr, nullptr),
    make(TEXT_AT(extData_t, DevTypeText), Kind::Text),
    measure(AT(extData_t, ComType), nullptr, nullptr),
};

}  // namespace

const Record nodeRecord = recordOf(nodeFields);
const Record extensionRecord = recordOf(extensionFields);
const Names elementNames = {elements, std::size(elements)};
const Names commandNames = {commands, std::size(commands)};
const Names kindNames = {kinds, std::size(kinds)};

const Record* descRecord(uint8 nodetype) {
    return nodetype < std::size(descRecords) ? &descRecords[nodetype] : nullptr;
}

}  // namespace ugwctl
