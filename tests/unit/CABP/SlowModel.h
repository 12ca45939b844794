// The system aggregation once more: slow, rule by rule, over copies of the records, without tables and with nothing
// shared with the product but the records themselves. What a pass must leave behind, to the byte.
#ifndef TESTS_UNIT_CABP_SLOWMODEL_H
#define TESTS_UNIT_CABP_SLOWMODEL_H

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Common/VirtualUPSTypes.h"
#include "Config/SysCfgMgr.h"
#include "unit/CABP/SlowDocument.h"

namespace slowmodel {

struct Cabinet {
    bool active = false;
    bool isGood = false;
    bool configUpdate = false;
    int errorPck = 0;
    bool hasNode = false;
    virtualNode_t node = {};
};

struct Machine {
    int state = 0;
    long long start = 0;
};

/// Average of the values above a bound, as stored in 32 bits.
inline std::uint32_t mean(const std::vector<std::uint32_t>& values) {
    std::uint32_t sum = 0;
    for (const std::uint32_t value : values) {
        sum += value;
    }
    return values.empty() ? 0 : sum / static_cast<std::uint32_t>(values.size());
}

class Model {
  public:
    // What goes in, and partly out.
    Cabinet cabinets[4];
    virtualNode_t root = {};
    bool hasModule = false;
    identification_t moduleIdentification = {};
    std::uint16_t moduleBatteryAh = 0;
    PlantCfg cfg = {};
    int numUPS = 0;
    // What comes out.
    int moduleNotOnLoad = 0;
    int moduleUsed = 0;
    std::string log;
    std::string json;

    void pass(long long nowT) {
        log.clear();
        const descSys_t live = root.desc.sys;
        descSys_t t = {};
        t.Ups.status.SWOUT = 1;
        t.Ups.extStatus.UPS_OK = 1;
        t.externalSwitchStatus.EPO = 1;
        t.externalSwitchStatus.SWBATT_EXT = cfg.externBattCapacity == 0;
        t.subSystem = live.subSystem;
        t.MCUMUStatus.numBypassOff = live.MCUMUStatus.numBypassOff;

        // Contributors.
        std::vector<descUpsBox_t> in;
        std::uint32_t VA = 0;
        std::uint32_t W = 0;
        for (Cabinet& cabinet : cabinets) {
            if (!cabinet.active || !cabinet.hasNode) {
                continue;
            }
            descUpsBox_t& box = cabinet.node.desc.upsBox;
            if (!cabinet.isGood) {
                box.MCUMUStatus.commErrorMCU = 1;
                box.MCUMUStatus.AnomalyMCU = 1;
                t.MCUMUStatus.commErrorMCU = 1;
                t.MCUMUStatus.AnomalyMCU = 1;
                continue;
            }
            box.MCUMUStatus.commErrorMCU = 0;
            if (box.Ups.timestamp == 0) {
                t.Ups.alarm.Anomaly = 1;
                t.Ups.PMStatus.commError = 1;
                continue;
            }
            in.push_back(box);
            VA += cabinet.node.nominal.VA;
            W += cabinet.node.nominal.W;
        }
        firstScan(t, in, live, nowT);
        secondScan(t, live);
        t.boxStatus.Fault = t.boxStatus.Fault || t.Ups.alarm.Fault;
        for (const Cabinet& cabinet : cabinets) {
            if (cabinet.active && cabinet.hasNode && cabinet.isGood &&
                nowT - cabinet.node.desc.upsBox.Ups.timestamp < 30) {
                t.Ups.timestamp = static_cast<std::int32_t>(nowT);
            }
        }
        modules(t, in, nowT);
        if (t.Ups.alarm.Warning || t.Ups.alarm.Anomaly || t.Ups.alarm.Fault || t.Ups.alarm.Lock) {
            t.Ups.extStatus.UPS_OK = 0;
        }
        root.desc.sys = t;
        nameplate(nowT, VA, W);
        items(nowT);
        bool isLost[4];
        for (int id = 0; id < 4; ++id) {
            const Cabinet& cabinet = cabinets[id];
            const bool bySystem = (root.desc.sys.subSystem.UPSBox[id].desc & 7) == 0;
            const bool byItself = cabinet.hasNode && (cabinet.node.desc.upsBox.subSystem.UPSShelter[0].desc & 7) == 0;
            isLost[id] = bySystem || byItself;
        }
        json = Document(t, root, isLost, nowT).json;
    }

  private:
    Machine lock, bypassBad, batteryWorking, outputPowered, lost, low;

    bool judge(Machine& machine, bool present, long long nowT, long long limit, const char* message) {
        if (!present) {
            machine.state = 0;
            return false;
        }
        if (machine.state == 0) {
            machine.state = 1;
            machine.start = nowT;
        } else if (machine.state == 1 && nowT - machine.start > limit) {
            machine.state = 2;
            log += message;
        }
        return machine.state == 2;
    }

    void firstScan(descSys_t& t, const std::vector<descUpsBox_t>& in, const descSys_t& live, long long nowT) {
        const int n = static_cast<int>(in.size());
        int locks = 0, bypasses = 0, lows = 0, working = 0, powered = 0, wrong = 0;
        std::uint32_t Va[3] = {}, Watt[3] = {}, Iin[3] = {}, Iout[3] = {}, Iout_pk[3] = {}, Ibatp = 0, Ibatn = 0;
        std::vector<std::uint32_t> Vin[3], Vbyp[3], Vout[3], Uin[3], Ubyp[3], Uout[3], Frq_in, Frq_byp, Frq_out;
        std::vector<std::uint16_t> VbatRS, Vbatp, Vbatn;
        std::uint16_t Aut_time = 0xFFFF;
        std::uint8_t Carica_adj = 0xFF;
        for (const descUpsBox_t& box : in) {
            const dataObject_t ups = box.Ups;
            if (ups.alarm.Warning)
                t.Ups.alarm.Warning = 1;
            if (ups.alarm.Anomaly)
                t.Ups.alarm.Anomaly = 1;
            if (ups.alarm.Fault)
                t.Ups.alarm.Fault = 1;
            if (ups.alarm.Alarm_Temperature)
                t.Ups.alarm.Alarm_Temperature = 1;
            if (ups.alarm.Alarm_Overload)
                t.Ups.alarm.Alarm_Overload = 1;
            if (ups.alarm.Lock)
                ++locks;
            if (ups.alarm.Bypass_Bad)
                ++bypasses;
            if (ups.alarm.Battery_Low)
                ++lows;
            if (ups.status.Output_Powered) {
                t.Ups.status.Output_Powered = 1;
                ++powered;
            }
            if (ups.status.Output_Powered != live.Ups.status.Output_Powered)
                ++wrong;
            if (ups.status.Battery_Working)
                ++working;
            if (ups.status.On_Bypass)
                t.Ups.status.On_Bypass = 1;
            if (ups.status.Line_Present)
                t.Ups.status.Line_Present = 1;
            if (ups.status.Shutdown_Active)
                t.Ups.status.Shutdown_Active = 1;
            if (ups.status.Shutdown_Imminent)
                t.Ups.status.Shutdown_Imminent = 1;
            if (ups.extStatus.Clock_Update)
                t.Ups.extStatus.Clock_Update = 1;
            if (ups.extStatus.isMaster)
                t.Ups.extStatus.isMaster = 1;
            if (ups.extStatus.Eco_Mode)
                t.Ups.extStatus.Eco_Mode = 1;
            if (ups.extStatus.Test_in_progress)
                t.Ups.extStatus.Test_in_progress = 1;
            if (ups.extStatus.Replace_Battery)
                t.Ups.extStatus.Replace_Battery = 1;
            if (ups.extStatus.Parallel_Link_Open)
                t.Ups.extStatus.Parallel_Link_Open = 1;
            if (ups.extStatus.Battery_Charging)
                t.Ups.extStatus.Battery_Charging = 1;
            if (!ups.extStatus.UPS_OK)
                t.Ups.extStatus.UPS_OK = 0;
            if (ups.switchStatus.Q1)
                t.Ups.switchStatus.Q1 = 1;
            if (ups.switchStatus.LoadOnBypass_Cmd)
                t.Ups.switchStatus.LoadOnBypass_Cmd = 1;
            if (ups.switchStatus.BypassDisabled_Cmd)
                t.Ups.switchStatus.BypassDisabled_Cmd = 1;
            if (ups.switchStatus.Bt_present)
                t.Ups.switchStatus.Bt_present = 1;
            if (ups.switchStatus.RemoteCBOff_Cmd)
                t.Ups.switchStatus.RemoteCBOff_Cmd = 1;
            if (ups.switchStatus.RemoteEco_Cmd)
                t.Ups.switchStatus.RemoteEco_Cmd = 1;
            if (ups.switchStatus.FreeSW6)
                t.Ups.switchStatus.FreeSW6 = 1;
            if (ups.switchStatus.RemoteBatteryWorking_Cmd)
                t.Ups.switchStatus.RemoteBatteryWorking_Cmd = 1;
            if (ups.PMStatus.wrongPower)
                t.Ups.PMStatus.wrongPower = 1;
            if (ups.PMStatus.inputDisabled)
                t.Ups.PMStatus.inputDisabled = 1;
            if (ups.PMStatus.commError)
                t.Ups.PMStatus.commError = 1;
            if (ups.PMStatus.bypassBadAnomaly)
                t.Ups.PMStatus.bypassBadAnomaly = 1;
            if (ups.PMStatus.batteryWorkingAnomaly)
                t.Ups.PMStatus.batteryWorkingAnomaly = 1;
            if (ups.PMStatus.outputPoweredAnomaly)
                t.Ups.PMStatus.outputPoweredAnomaly = 1;
            if (ups.PMStatus.differentFirmwareAnomaly)
                t.Ups.PMStatus.differentFirmwareAnomaly = 1;
            if (ups.PMStatus.someBatteryDisconnect)
                t.Ups.PMStatus.someBatteryDisconnect = 1;
            if (ups.PMStatus.bitCmdUnsupported)
                t.Ups.PMStatus.bitCmdUnsupported = 1;
            if (box.MCUMUStatus.commErrorMU)
                t.MCUMUStatus.commErrorMU = 1;
            if (ups.maxLoad > t.Ups.maxLoad)
                t.Ups.maxLoad = ups.maxLoad;
            for (int l = 0; l < 3; ++l) {
                Va[l] += static_cast<std::uint32_t>(ups.Va[l]);
                Watt[l] += static_cast<std::uint32_t>(ups.Watt[l]);
                Iin[l] += ups.Iin[l];
                Iout[l] += static_cast<std::uint32_t>(ups.Iout[l]);
                Iout_pk[l] += static_cast<std::uint32_t>(ups.Iout_pk[l]);
                if (ups.Vin[l] > 79)
                    Vin[l].push_back(ups.Vin[l]);
                if (ups.Vbyp[l] > 79)
                    Vbyp[l].push_back(ups.Vbyp[l]);
                if (ups.Vout[l] > 79)
                    Vout[l].push_back(ups.Vout[l]);
                if (ups.Uin[l] > 138)
                    Uin[l].push_back(ups.Uin[l]);
                if (ups.Ubyp[l] > 138)
                    Ubyp[l].push_back(ups.Ubyp[l]);
                if (ups.Uout[l] > 138)
                    Uout[l].push_back(ups.Uout[l]);
            }
            Ibatp += static_cast<std::uint32_t>(ups.Ibatp);
            Ibatn += static_cast<std::uint32_t>(ups.Ibatn);
            if (ups.Frq_in > 19)
                Frq_in.push_back(ups.Frq_in);
            if (ups.Frq_byp > 19)
                Frq_byp.push_back(ups.Frq_byp);
            if (ups.Frq_out > 19)
                Frq_out.push_back(ups.Frq_out);
            if (ups.VbatRS > 99)
                VbatRS.push_back(ups.VbatRS);
            if (ups.Vbatp > 99)
                Vbatp.push_back(ups.Vbatp);
            if (ups.Vbatn > 99)
                Vbatn.push_back(ups.Vbatn);
            if (ups.Vbatp > 100) {
                if (ups.Aut_time < Aut_time)
                    Aut_time = ups.Aut_time;
                if (ups.Carica_adj < Carica_adj)
                    Carica_adj = ups.Carica_adj;
            }
            if (ups.Temp0 > t.Ups.Temp0)
                t.Ups.Temp0 = ups.Temp0;
            if (ups.Temp1 > t.Ups.Temp1)
                t.Ups.Temp1 = ups.Temp1;
            if (ups.Temp2 > t.Ups.Temp2)
                t.Ups.Temp2 = ups.Temp2;
            if (ups.Temp3 > t.Ups.Temp3)
                t.Ups.Temp3 = ups.Temp3;
            if (ups.Temp4 > t.Ups.Temp4)
                t.Ups.Temp4 = ups.Temp4;
            if (ups.Temp5 > t.Ups.Temp5)
                t.Ups.Temp5 = ups.Temp5;
            if (ups.Temp6 > t.Ups.Temp6)
                t.Ups.Temp6 = ups.Temp6;
        }

        if (locks != 0 && locks == n)
            t.Ups.alarm.Lock = 1;
        if (judge(lock, locks != 0 && locks != n, nowT, 10, "Non tutti gli armadi sono in Lock!!\n")) {
            t.Ups.alarm.Fault = 1;
        }
        if (bypasses != 0 && bypasses == n)
            t.Ups.alarm.Bypass_Bad = 1;
        if (judge(bypassBad, bypasses != 0 && bypasses != n, nowT, 10, "Non tutti gli armadi sono in BypassBad!!\n")) {
            t.Ups.alarm.Fault = 1;
            t.Ups.PMStatus.bypassBadAnomaly = 1;
        }
        if (working > powered - working) {
            t.Ups.status.Battery_Working = 1;
            t.Ups.status.Line_Present = 0;
        }
        if (judge(batteryWorking, working != 0 && working != n, nowT, 10,
                  "Non tutti i moduli funzionano da batteria!!\n")) {
            t.Ups.PMStatus.batteryWorkingAnomaly = 1;
            t.Ups.alarm.Anomaly = 1;
        }
        if (judge(outputPowered, wrong != 0, nowT, 10, "Lo stato Output_Powered non e' coerente!!\n")) {
            t.Ups.PMStatus.outputPoweredAnomaly = 1;
            t.Ups.alarm.Anomaly = 1;
        }
        if (t.Ups.status.Battery_Working) {
            if (lows >= n - lows)
                t.Ups.alarm.Battery_Low = 1;
            if (lows != 0 && lows != n)
                t.Ups.alarm.Warning = 1;
        }

        for (int l = 0; l < 3; ++l) {
            t.Ups.Va[l] = std::max(0, static_cast<std::int32_t>(Va[l]));
            t.Ups.Watt[l] = std::max(0, static_cast<std::int32_t>(Watt[l]));
            t.Ups.Iin[l] = Iin[l];
            t.Ups.Iout[l] = static_cast<std::int32_t>(Iout[l]);
            t.Ups.Iout_pk[l] = std::max(0, static_cast<std::int32_t>(Iout_pk[l]));
            t.Ups.Vin[l] = static_cast<std::uint16_t>(mean(Vin[l]));
            t.Ups.Vbyp[l] = static_cast<std::uint16_t>(mean(Vbyp[l]));
            t.Ups.Vout[l] = static_cast<std::uint16_t>(mean(Vout[l]));
            t.Ups.Uin[l] = static_cast<std::uint16_t>(mean(Uin[l]));
            t.Ups.Ubyp[l] = static_cast<std::uint16_t>(mean(Ubyp[l]));
            t.Ups.Uout[l] = static_cast<std::uint16_t>(mean(Uout[l]));
        }
        t.Ups.Ibatp = static_cast<std::int32_t>(Ibatp);
        t.Ups.Ibatn = static_cast<std::int32_t>(Ibatn);
        t.Ups.Frq_in = static_cast<std::uint16_t>(mean(Frq_in));
        t.Ups.Frq_byp = static_cast<std::uint16_t>(mean(Frq_byp));
        t.Ups.Frq_out = static_cast<std::uint16_t>(mean(Frq_out));
        t.Ups.VbatRS = VbatRS.empty() ? std::uint16_t{0} : *std::min_element(VbatRS.begin(), VbatRS.end());
        t.Ups.Vbatp = Vbatp.empty() ? std::uint16_t{0} : *std::min_element(Vbatp.begin(), Vbatp.end());
        t.Ups.Vbatn = Vbatn.empty() ? std::uint16_t{0} : *std::min_element(Vbatn.begin(), Vbatn.end());
        t.Ups.Aut_time = Aut_time;
        if (Aut_time == 0xFFFF && Vbatp.empty()) {
            t.Ups.Aut_time = 0;
            if (t.Ups.switchStatus.Q1)
                log += "Nessun armadio acceso ha comunicato l'autonomia\n";
        }
        t.Ups.Carica_adj = Carica_adj == 0xFF ? std::uint8_t{0} : Carica_adj;
    }

    void secondScan(descSys_t& t, const descSys_t& live) {
        int n = 0, outOpened = 0, mbClosed = 0, inOpened = 0, bypOpened = 0, battOpened = 0;
        std::vector<std::uint32_t> barsPos, barsNeg;
        for (int id = 0; id < 4; ++id) {
            Cabinet& cabinet = cabinets[id];
            if (!cabinet.active || !cabinet.hasNode) {
                continue;
            }
            descUpsBox_t& box = cabinet.node.desc.upsBox;
            if (!cabinet.isGood) {
                box.MCUMUStatus.commErrorMCU = 1;
                box.boxStatus.Anomaly = 1;
                t.boxStatus.Anomaly = 1;
                t.MCUMUStatus.commErrorMCU = 1;
                continue;
            }
            if (cabinet.configUpdate) {
                log += std::string("Ho ricevuto la richiesta di configurazione da MU_") + static_cast<char>('A' + id) +
                       "\n";
                continue;
            }
            box.MCUMUStatus.commErrorMU = 0;
            ++n;
            if (!box.Ups.status.SWOUT) {
                t.Ups.status.SWOUT = 0;
                ++outOpened;
            }
            if (box.Ups.status.SWMB) {
                t.Ups.status.SWMB = 1;
                ++mbClosed;
            }
            if (box.boxStatus.NotPresentString)
                t.boxStatus.NotPresentString = 1;
            if (box.boxStatus.ReplaceString)
                t.boxStatus.ReplaceString = 1;
            if (box.boxStatus.Fault)
                t.boxStatus.Fault = 1;
            if (box.boxStatus.HighTemp)
                t.boxStatus.HighTemp = 1;
            if (box.boxStatus.HighHygro)
                t.boxStatus.HighHygro = 1;
            if (box.boxStatus.Anomaly)
                t.boxStatus.Anomaly = 1;
            if (box.boxStatus.Warning)
                t.boxStatus.Warning = 1;
            if (box.externalSwitchStatus.Fault_PWR1)
                t.externalSwitchStatus.Fault_PWR1 = 1;
            if (box.externalSwitchStatus.Fault_PWR2)
                t.externalSwitchStatus.Fault_PWR2 = 1;
            if (box.externalSwitchStatus.SWIN)
                t.externalSwitchStatus.SWIN = 1;
            else
                ++inOpened;
            if (box.externalSwitchStatus.FreeSW3)
                t.externalSwitchStatus.FreeSW3 = 1;
            if (box.externalSwitchStatus.SWBYP)
                t.externalSwitchStatus.SWBYP = 1;
            else
                ++bypOpened;
            if (box.externalSwitchStatus.FreeSW5)
                t.externalSwitchStatus.FreeSW5 = 1;
            if (box.externalSwitchStatus.SWBATT_EXT)
                t.externalSwitchStatus.SWBATT_EXT = 1;
            else
                ++battOpened;
            if (!box.externalSwitchStatus.EPO)
                t.externalSwitchStatus.EPO = 0;
            if (box.MCUMUStatus.AnomalyMCU)
                t.MCUMUStatus.AnomalyMCU = 1;
            if (box.Batteries.barsPosV > 99)
                barsPos.push_back(static_cast<std::uint32_t>(box.Batteries.barsPosV));
            if (box.Batteries.barsNegV > 99)
                barsNeg.push_back(static_cast<std::uint32_t>(box.Batteries.barsNegV));
        }
        if (n == 0)
            t.externalSwitchStatus.EPO = 0;
        if (0 < inOpened && inOpened < n)
            t.Ups.PMStatus.SWINCabinetAnomaly = 1;
        if (inOpened > 0 || n == 0)
            t.Ups.alarm.Anomaly = 1;
        if (bypOpened > 0 && bypOpened != n)
            t.Ups.PMStatus.SWBYPCabinetAnomaly = 1;
        if (battOpened > 0 && battOpened != n) {
            t.Ups.PMStatus.SWBATT_EXTCabinetAnomaly = 1;
            t.boxStatus.Anomaly = 1;
        }
        if (mbClosed > 0 && mbClosed != n) {
            t.Ups.PMStatus.SWMBCabinetAnomaly = 1;
            t.Ups.alarm.Warning = 1;
            t.Ups.alarm.Anomaly = 1;
            if (live.Ups.status.SWMB)
                t.sysStatus.SWMBOpening = 1;
            else
                t.sysStatus.SWMBClosing = 1;
        }
        if (mbClosed == n)
            t.Ups.alarm.Warning = 1;
        if (outOpened > 0 && outOpened != n) {
            t.Ups.PMStatus.SWOUTCabinetAnomaly = 1;
            t.Ups.alarm.Anomaly = 1;
        }
        t.Batteries.barsPosV = static_cast<std::int16_t>(mean(barsPos));
        t.Batteries.barsNegV = static_cast<std::int16_t>(mean(barsNeg));
    }

    void modules(descSys_t& t, const std::vector<descUpsBox_t>& in, long long nowT) {
        const bool powered = t.Ups.status.Output_Powered;
        int notOnLoad = 0;
        for (int id = 0; powered && id < 4; ++id) {
            if (!cfg.Ups[id].present) {
                continue;
            }
            const descUpsBox_t& box = cabinets[id].node.desc.upsBox;
            const int shelter = box.subSystem.UPSShelter[0].desc & 7;
            if (!cabinets[id].hasNode || shelter == 0 || shelter == 5 || !box.Ups.status.Output_Powered ||
                (t.subSystem.UPSBox[id].desc & 7) == 0) {
                ++notOnLoad;
            }
        }
        if (!t.Ups.status.On_Bypass) {
            for (int l = 0; l < 3; ++l) {
                std::vector<std::uint32_t> loads;
                for (const descUpsBox_t& box : in) {
                    if (box.Ups.status.Output_Powered)
                        loads.push_back(static_cast<std::uint32_t>(box.Ups.Load[l]));
                }
                t.Ups.Load[l] = static_cast<std::int16_t>(mean(loads) & 0xFF);
            }
        }
        long long used = powered ? 1 : 0;
        if (t.Ups.switchStatus.Q1 && cfg.WModule != 0) {
            long long power = 0;
            for (int l = 0; l < 3; ++l) {
                power = std::max({power, static_cast<long long>(t.Ups.Watt[l]), static_cast<long long>(t.Ups.Va[l])});
            }
            const long long each = std::max(1u, cfg.WModule / 3);
            const long long needed = power / each + (power % each != 0 ? 1 : 0);
            used = std::min(static_cast<long long>(numUPS - notOnLoad), needed);
            if (used == 0 && powered)
                used = 1;
        }
        moduleNotOnLoad = notOnLoad;
        moduleUsed = static_cast<int>(used);

        if (numUPS == 0 || cfg.redundantUPS == 0) {
            return;
        }
        const bool reserve = cfg.redundantUPS > notOnLoad && used < numUPS - notOnLoad;
        if (judge(lost, !reserve, nowT, 3, "Lost Redundancy Detected\n")) {
            t.sysStatus.LostRedundancy = 1;
            t.Ups.alarm.Fault = 1;
        } else {
            const bool full = notOnLoad == 0 && used <= numUPS - cfg.redundantUPS;
            judge(low, !full, nowT, 3, "Low Redundancy Detected\n");
        }
    }

    void nameplate(long long nowT, std::uint32_t VA, std::uint32_t W) {
        identification_t who = {};
        who.timestamp = static_cast<std::int32_t>(nowT);
        std::memcpy(who.SN, "                ", 17);
        std::memcpy(who.Model, "                ", 17);
        std::memcpy(who.SWVer, "            ", 13);
        std::memcpy(&who.IO_Cfg, "001110200", 9);
        std::memcpy(who.tbdGI, "000", 3);
        std::memcpy(who.SN_AUX, "                ", 17);
        std::memcpy(who.SWVer_AUX, "            ", 13);
        std::memcpy(who.tbdGE, "0000", 4);
        if (hasModule) {
            std::memcpy(who.SN, moduleIdentification.SN, 17);
            std::memcpy(who.Model, moduleIdentification.Model, 17);
            std::memcpy(who.SWVer, moduleIdentification.SWVer, 13);
            who.IO_Cfg = moduleIdentification.IO_Cfg;
            who.UPS_Type = moduleIdentification.UPS_Type;
        }
        root.identification = who;
        nominal_t nominal = {};
        nominal.timestamp = static_cast<std::int32_t>(nowT);
        nominal.VA = VA;
        nominal.W = W;
        nominal.BatteryV = 240;
        nominal.BatteryAh = hasModule ? moduleBatteryAh : std::uint16_t{0};
        nominal.Vout = cfg.word7 % 256;
        nominal.FreqOut = (cfg.word28 >> 4) % 2 == 1 ? 600 : 500;
        root.nominal = nominal;
    }

    static void setState(elemDesc_t& elem, int state) {
        elem.desc = static_cast<std::uint8_t>((elem.desc & 0xF8) | state);
    }

    void items(long long nowT) {
        for (int id = 0; id < 4; ++id) {
            Cabinet& cabinet = cabinets[id];
            if (!cabinet.active || !cabinet.hasNode) {
                setState(root.desc.sys.subSystem.UPSBox[id], 1);
                continue;
            }
            descUpsBox_t& box = cabinet.node.desc.upsBox;
            const long long age = nowT - box.Ups.timestamp;
            if ((cabinet.errorPck == 0 && age > 30) || age >= 721) {
                setState(box.subSystem.UPSShelter[0], cfg.Ups[id].modulePresent[0] ? 0 : 1);
            }
            int state = 1;
            if (!cabinet.isGood) {
                state = 0;
            } else if (box.Ups.alarm.Lock) {
                state = 5;
            } else if (box.Ups.alarm.Fault || box.boxStatus.Fault) {
                state = 4;
            } else if (box.Ups.alarm.Anomaly || box.boxStatus.Anomaly) {
                state = 3;
            } else if (box.Ups.alarm.Warning || box.boxStatus.Warning) {
                state = 2;
            }
            setState(root.desc.sys.subSystem.UPSBox[id], state);
        }
    }
};

}  // namespace slowmodel

#endif
