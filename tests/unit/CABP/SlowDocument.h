// The status file once more, line by line, for the slow model of the aggregation.
#ifndef TESTS_UNIT_CABP_SLOWDOCUMENT_H
#define TESTS_UNIT_CABP_SLOWDOCUMENT_H

#include <cstring>
#include <string>
#include <vector>

#include "Common/VirtualUPSTypes.h"

namespace slowmodel {

class Document {
  public:
    /// `root` as published, `lost` by cabinet.
    Document(const descSys_t& t, const virtualNode_t& root, const bool (&lost)[4], long long nowT) {
        const dataObject_t u = t.Ups;
        json = "{\n";
        number("timestamp", nowT);
        flag("OUTPUTPOWERED", u.status.Output_Powered);
        flag("UPSLOCK", u.alarm.Lock);
        flag("BATTERYWORK", u.status.Battery_Working);
        flag("BATTERYLOW", u.alarm.Battery_Low);
        flag("ONBYPASS", u.status.On_Bypass);
        flag("BATTERYCHARGING", u.extStatus.Battery_Charging);
        flag("REPLACEBATTERY", u.extStatus.Replace_Battery);
        flag("SHUTDOWNACTIVE", u.status.Shutdown_Active);
        flag("SHUTDOWNIMMIN", u.status.Shutdown_Imminent);
        flag("TESTINPROGRESS", u.extStatus.Test_in_progress);
        flag("ALARMOVERLOAD", u.alarm.Alarm_Overload);
        flag("ALARMTEMPERATUR", u.alarm.Alarm_Temperature);
        const char* const nth[3] = {"", "2", "3"};
        const char* const first[3] = {"1", "2", "3"};
        const auto three = [&](const char* key, const char* const(&ends)[3], auto value) {
            for (int l = 0; l < 3; ++l) {
                number((std::string(key) + ends[l]).c_str(), value(l));
            }
        };
        three("INPUTVOLTAGE", nth, [&](int l) { return u.Vin[l] + 0; });
        number("INPUTFREQUENCY", u.Frq_in + 0);
        three("INPUTCURRENT", nth, [&](int l) { return static_cast<long>(u.Iin[l]); });
        three("OUTPUTVOLTAGE", nth, [&](int l) { return u.Vout[l] + 0; });
        number("OUPUTFREQUENCY", u.Frq_out + 0);
        three("OUTPUTLOAD", nth, [&](int l) { return u.Load[l] + 0; });
        three("OUTPUTCURRENT", nth, [&](int l) { return u.Iout[l] + 0; });
        three("OUTPUTCURRENTP", first, [&](int l) { return u.Iout_pk[l] + 0; });
        three("OUTPUTPOWER", nth, [&](int l) { return u.Watt[l] + 0; });
        three("OUTPUTPOWERVA", first, [&](int l) { return u.Va[l] + 0; });
        number("BYPASSFREQUENCY", u.Frq_byp + 0);
        three("BYPASSVOLTAGE", nth, [&](int l) { return u.Vbyp[l] + 0; });
        number("BATTERYVOLTAGE", u.VbatRS + 0);
        number("VBATPLUS", u.Vbatp + 0);
        number("VBATMINUS", u.Vbatn + 0);
        number("BATTERYCURRENT", u.Ibatp + 0);
        number("BATTERYCURRENTMINUS", u.Ibatn + 0);
        number("BATTERYESTCHARG", u.Carica_adj + 0);
        number("BATTERYESTTIME", u.Aut_time + 0);
        number("SYSTEMTEMP", u.Temp0 + 0);
        number("INVTEMP", u.Temp1 + 0);
        number("RECTTEMP", u.Temp2 + 0);
        number("TEMP1", u.Temp3 + 0);
        number("TEMP2", u.Temp4 + 0);
        number("TEMP3", u.Temp5 + 0);
        number("TEMP4", u.Temp6 + 0);
        words("TESTNUMBERJ", root.identification.SN, 17);
        words("UPSMODELJ", root.identification.Model, 17);
        words("UPSSWVERSIONJ", root.identification.SWVer, 13);
        number("NOMINALPOWERW", static_cast<long>(root.nominal.W));
        number("NOMINALPOWERVA", static_cast<long>(root.nominal.VA));
        number("IOCONFIGURATION", root.identification.IO_Cfg - 48);
        number("UPSTYPE", root.identification.UPS_Type - 48);
        flag("LINEPRESENT", u.status.Line_Present);
        json += "\"statusAlarms\":[\n";
        std::vector<std::string> names;
        if (u.alarm.Anomaly)
            names.push_back("SYSTEM_ANOMALY");
        if (u.extStatus.Eco_Mode)
            names.push_back("ECO_MODE");
        if (!t.externalSwitchStatus.SWIN)
            names.push_back("SWIN_OPEN");
        if (!t.externalSwitchStatus.SWBYP)
            names.push_back("SWBYP_OPEN");
        if (!t.externalSwitchStatus.SWBATT_EXT)
            names.push_back("SWBAT_EXT_OPEN");
        if (!u.status.SWOUT)
            names.push_back("SWOUT_OPEN");
        if (u.status.SWMB)
            names.push_back("MANUAL_BYPASS_UPS");
        if (u.alarm.Bypass_Bad)
            names.push_back("BYPASS_BAD");
        if (u.extStatus.Parallel_Link_Open)
            names.push_back("PARALLEL_LINK_OPEN");
        if (!u.switchStatus.Bt_present)
            names.push_back("BATTERY_NOT_PRESENT_A62");
        if (t.sysStatus.LostRedundancy)
            names.push_back("ALARM_REDUNDANCY");
        bool failure = u.alarm.Fault;
        for (int id = 0; id < 4; ++id) {
            if (lost[id]) {
                names.push_back("MODULE_" + std::to_string(id + 1) + "_LOST");
                failure = true;
            }
        }
        for (std::size_t i = 0; i < names.size(); ++i) {
            json += (i == 0 ? "\n\"" : ",\n\"") + names[i] + "\"";
        }
        json += std::string("],\n\"UPSFAILURE\": ") + (failure ? "true}" : "false}");
    }

    std::string json;

  private:
    template <typename Value>
    void number(const char* key, Value value) {
        json += std::string("\"") + key + "\": " + std::to_string(value) + ",\n";
    }
    void flag(const char* key, bool value) {
        json += std::string("\"") + key + "\": " + (value ? "true" : "false") + ",\n";
    }
    void words(const char* key, const char* text, std::size_t width) {
        json += std::string("\"") + key + "\": \"" + std::string(text, strnlen(text, width)) + "\",\n";
    }
};

}  // namespace slowmodel

#endif
