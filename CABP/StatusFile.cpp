#include "CABP/StatusFile.h"

#include <cerrno>
#include <cstdio>

namespace {

// Room for the whole document, so that it is written at once. The longest has some 2700 bytes.
constexpr std::size_t DOCUMENT_ROOM = 4096;

void put(std::FILE* file, const char* key, bool value) {
    std::fprintf(file, "\"%s\": %s,\n", key, value ? "true" : "false");
}
void put(std::FILE* file, const char* key, long value) {
    std::fprintf(file, "\"%s\": %ld,\n", key, value);
}
// Other processes and nodes write the texts: one may have lost its terminator.
template <std::size_t N>
void put(std::FILE* file, const char* key, const char (&text)[N]) {
    std::fprintf(file, "\"%s\": \"%.*s\",\n", key, static_cast<int>(N), text);
}

using PutKey = void (*)(std::FILE* file, const statusDocument_t& doc);
#define FLAG_(key, field) [](std::FILE* file, const statusDocument_t& doc) { put(file, key, doc.field != 0); }
#define NUMBER_(key, field) \
    [](std::FILE* file, const statusDocument_t& doc) { put(file, key, static_cast<long>(doc.field)); }
#define TEXT_(key, field) [](std::FILE* file, const statusDocument_t& doc) { put(file, key, doc.field); }

// The spelling of the keys is the readers'.
constexpr PutKey keyTable[] = {
    NUMBER_("timestamp", now),
    FLAG_("OUTPUTPOWERED", sys.Ups.status.Output_Powered),
    FLAG_("UPSLOCK", sys.Ups.alarm.Lock),
    FLAG_("BATTERYWORK", sys.Ups.status.Battery_Working),
    FLAG_("BATTERYLOW", sys.Ups.alarm.Battery_Low),
    FLAG_("ONBYPASS", sys.Ups.status.On_Bypass),
    FLAG_("BATTERYCHARGING", sys.Ups.extStatus.Battery_Charging),
    FLAG_("REPLACEBATTERY", sys.Ups.extStatus.Replace_Battery),
    FLAG_("SHUTDOWNACTIVE", sys.Ups.status.Shutdown_Active),
    FLAG_("SHUTDOWNIMMIN", sys.Ups.status.Shutdown_Imminent),
    FLAG_("TESTINPROGRESS", sys.Ups.extStatus.Test_in_progress),
    FLAG_("ALARMOVERLOAD", sys.Ups.alarm.Alarm_Overload),
    FLAG_("ALARMTEMPERATUR", sys.Ups.alarm.Alarm_Temperature),
    NUMBER_("INPUTVOLTAGE", sys.Ups.Vin[LINE1]),
    NUMBER_("INPUTVOLTAGE2", sys.Ups.Vin[LINE2]),
    NUMBER_("INPUTVOLTAGE3", sys.Ups.Vin[LINE3]),
    NUMBER_("INPUTFREQUENCY", sys.Ups.Frq_in),
    NUMBER_("INPUTCURRENT", sys.Ups.Iin[LINE1]),
    NUMBER_("INPUTCURRENT2", sys.Ups.Iin[LINE2]),
    NUMBER_("INPUTCURRENT3", sys.Ups.Iin[LINE3]),
    NUMBER_("OUTPUTVOLTAGE", sys.Ups.Vout[LINE1]),
    NUMBER_("OUTPUTVOLTAGE2", sys.Ups.Vout[LINE2]),
    NUMBER_("OUTPUTVOLTAGE3", sys.Ups.Vout[LINE3]),
    NUMBER_("OUPUTFREQUENCY", sys.Ups.Frq_out),
    NUMBER_("OUTPUTLOAD", sys.Ups.Load[LINE1]),
    NUMBER_("OUTPUTLOAD2", sys.Ups.Load[LINE2]),
    NUMBER_("OUTPUTLOAD3", sys.Ups.Load[LINE3]),
    NUMBER_("OUTPUTCURRENT", sys.Ups.Iout[LINE1]),
    NUMBER_("OUTPUTCURRENT2", sys.Ups.Iout[LINE2]),
    NUMBER_("OUTPUTCURRENT3", sys.Ups.Iout[LINE3]),
    NUMBER_("OUTPUTCURRENTP1", sys.Ups.Iout_pk[LINE1]),
    NUMBER_("OUTPUTCURRENTP2", sys.Ups.Iout_pk[LINE2]),
    NUMBER_("OUTPUTCURRENTP3", sys.Ups.Iout_pk[LINE3]),
    NUMBER_("OUTPUTPOWER", sys.Ups.Watt[LINE1]),
    NUMBER_("OUTPUTPOWER2", sys.Ups.Watt[LINE2]),
    NUMBER_("OUTPUTPOWER3", sys.Ups.Watt[LINE3]),
    NUMBER_("OUTPUTPOWERVA1", sys.Ups.Va[LINE1]),
    NUMBER_("OUTPUTPOWERVA2", sys.Ups.Va[LINE2]),
    NUMBER_("OUTPUTPOWERVA3", sys.Ups.Va[LINE3]),
    NUMBER_("BYPASSFREQUENCY", sys.Ups.Frq_byp),
    NUMBER_("BYPASSVOLTAGE", sys.Ups.Vbyp[LINE1]),
    NUMBER_("BYPASSVOLTAGE2", sys.Ups.Vbyp[LINE2]),
    NUMBER_("BYPASSVOLTAGE3", sys.Ups.Vbyp[LINE3]),
    NUMBER_("BATTERYVOLTAGE", sys.Ups.VbatRS),
    NUMBER_("VBATPLUS", sys.Ups.Vbatp),
    NUMBER_("VBATMINUS", sys.Ups.Vbatn),
    NUMBER_("BATTERYCURRENT", sys.Ups.Ibatp),
    NUMBER_("BATTERYCURRENTMINUS", sys.Ups.Ibatn),
    NUMBER_("BATTERYESTCHARG", sys.Ups.Carica_adj),
    NUMBER_("BATTERYESTTIME", sys.Ups.Aut_time),
    NUMBER_("SYSTEMTEMP", sys.Ups.Temp0),
    NUMBER_("INVTEMP", sys.Ups.Temp1),
    NUMBER_("RECTTEMP", sys.Ups.Temp2),
    NUMBER_("TEMP1", sys.Ups.Temp3),
    NUMBER_("TEMP2", sys.Ups.Temp4),
    NUMBER_("TEMP3", sys.Ups.Temp5),
    NUMBER_("TEMP4", sys.Ups.Temp6),
    TEXT_("TESTNUMBERJ", root.identification.SN),
    TEXT_("UPSMODELJ", root.identification.Model),
    TEXT_("UPSSWVERSIONJ", root.identification.SWVer),
    NUMBER_("NOMINALPOWERW", root.nominal.W),
    NUMBER_("NOMINALPOWERVA", root.nominal.VA),
    NUMBER_("IOCONFIGURATION", root.identification.IO_Cfg - '0'),
    NUMBER_("UPSTYPE", root.identification.UPS_Type - '0'),
    FLAG_("LINEPRESENT", sys.Ups.status.Line_Present),
};

#undef FLAG_
#undef NUMBER_
#undef TEXT_

struct AlarmRow {
    const char* name;
    bool (*isPresent)(const descSys_t& sys);
};
constexpr AlarmRow alarmTable[] = {
    {"SYSTEM_ANOMALY", [](const descSys_t& sys) { return sys.Ups.alarm.Anomaly != 0; }},
    {"ECO_MODE", [](const descSys_t& sys) { return sys.Ups.extStatus.Eco_Mode != 0; }},
    {"SWIN_OPEN", [](const descSys_t& sys) { return sys.externalSwitchStatus.SWIN == 0; }},
    {"SWBYP_OPEN", [](const descSys_t& sys) { return sys.externalSwitchStatus.SWBYP == 0; }},
    {"SWBAT_EXT_OPEN", [](const descSys_t& sys) { return sys.externalSwitchStatus.SWBATT_EXT == 0; }},
    {"SWOUT_OPEN", [](const descSys_t& sys) { return sys.Ups.status.SWOUT == 0; }},
    {"MANUAL_BYPASS_UPS", [](const descSys_t& sys) { return sys.Ups.status.SWMB != 0; }},
    {"BYPASS_BAD", [](const descSys_t& sys) { return sys.Ups.alarm.Bypass_Bad != 0; }},
    {"PARALLEL_LINK_OPEN", [](const descSys_t& sys) { return sys.Ups.extStatus.Parallel_Link_Open != 0; }},
    {"BATTERY_NOT_PRESENT_A62", [](const descSys_t& sys) { return sys.Ups.switchStatus.Bt_present == 0; }},
    {"ALARM_REDUNDANCY", [](const descSys_t& sys) { return sys.sysStatus.LostRedundancy != 0; }},
};

void putDocument(std::FILE* file, const statusDocument_t& doc) {
    std::fputs("{\n", file);
    for (const PutKey putKey : keyTable) {
        putKey(file, doc);
    }
    std::fputs("\"statusAlarms\":[\n", file);
    const char* separator = "\n";
    for (const AlarmRow& row : alarmTable) {
        if (row.isPresent(doc.sys)) {
            std::fprintf(file, "%s\"%s\"", separator, row.name);
            separator = ",\n";
        }
    }
    bool failure = doc.sys.Ups.alarm.Fault != 0;
    for (int id = 0; id < MAXUPSBOX; ++id) {
        if (doc.moduleLost[id]) {
            std::fprintf(file, "%s\"MODULE_%d_LOST\"", separator, id + 1);
            separator = ",\n";
            failure = true;
        }
    }
    std::fprintf(file, "],\n\"UPSFAILURE\": %s}", failure ? "true" : "false");
}

}  // namespace

StatusFileResult StatusFile_Write(const char* path, const char* pathTMP, const statusDocument_t& doc) {
    std::FILE* const file = std::fopen(pathTMP, "w");
    if (file == nullptr) {
        return StatusFileResult::NotOpened;
    }
    char buffer[DOCUMENT_ROOM];
    std::setvbuf(file, buffer, _IOFBF, sizeof(buffer));
    std::fseek(file, 0, SEEK_SET);
    putDocument(file, doc);
    const bool isWhole = std::fflush(file) == 0 && std::ferror(file) == 0;
    const int fault = errno;
    const bool isClosed = std::fclose(file) == 0;
    if (!isWhole || !isClosed) {
        errno = isWhole ? errno : fault;
        return StatusFileResult::NotWritten;  // half a document must not take the place of a whole one
    }
    return std::rename(pathTMP, path) == 0 ? StatusFileResult::Written : StatusFileResult::NotRenamed;
}
