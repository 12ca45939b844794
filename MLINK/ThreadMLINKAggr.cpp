// Folds what is known of the own module into the cabinet's record, and carries out the panels of single modules.
//
// The rules are stated in counts of modules, since a cabinet of the family may hold several; here each count is 0 or 1.
#include <cstring>

#include "CABP/CABP.h"
#include "CABP/ThreadCABP.h"
#include "Common/LogStep.h"
#include "Common/Monotonic.h"
#include "Common/SysMgr.h"
#include "MLINK/MLINKInternal.h"
#include "MLINK/ThreadMLINK.h"
#include "Measure/AnomalyTimer.h"
#include "Measure/VirtualUPSMgr.h"

namespace {

// Thresholds in the units of the module's data.
constexpr int LN_VOLTTH = 80;   // phase to neutral, from which a voltage takes part in a mean
constexpr int LL_VOLTTH = 139;  // phase to phase
constexpr int FREQTH = 20;
constexpr int VBATTH = 100;  // autonomy needs the positive voltage strictly above it
// Declared for the family; no step of this system uses them.
[[maybe_unused]] constexpr int LOADTH = 2;
[[maybe_unused]] constexpr int WTH = 350;
[[maybe_unused]] constexpr int VATH = 700;
[[maybe_unused]] constexpr int VARTH = 500;
[[maybe_unused]] constexpr int TAN_fi = 298;
[[maybe_unused]] constexpr double CABINETTEMP_TH = 37.0;
[[maybe_unused]] constexpr double CABINETTEMP_HYST = 2.0;

constexpr std::int64_t PACE = 1000;    // ms that must have passed since the last run
constexpr int DISAGREEMENT_LIMIT = 5;  // s that a disagreement must exceed to count
constexpr uint8 DIFFERENTBUILDS = 2;   // above it the firmware of the plant counts as different
constexpr uint8 NOIDU = 255;

constexpr char OPERATION[] = "AggregateUPS";  // the log's name for all of its steps

/// A mean in the making.
struct Mean {
    uint32 acc = 0;
    uint8 cnt = 0;
    void add(uint32 value) {
        acc += value;
        ++cnt;
    }
    void addFrom(int threshold, uint16 value) {
        if (value >= threshold) {
            add(value);
        }
    }
    uint32 value() const { return cnt != 0 ? acc / cnt : 0; }
};

/// Everything of one run.
struct Run {
    descUpsBox_t box;
    time32_t now = 0;
    int actvElem = 0;
    bool noAutonomy = true;
    int moduleInBatteryLow = 0;
    int moduleInOutputPower = 0;
    int moduleInBatteryWorking = 0;
    int moduleInLock = 0;
    int moduleInBypassBad = 0;
    bool outputDiffers = false;
    Mean load[3], vin[3], uin[3], vbyp[3], ubyp[3], vout[3], uout[3];
    Mean vbatRS, vbatp, vbatn, frqIn, frqByp, frqOut;
};

bool isModuleGood(const ModuleQueriesData_t& slot) {
    return slot.commStatus.active && slot.commStatus.isGood;
}

bool someButNotAll(int count, int all) {
    return count != 0 && count != all;
}

int32 addWrapping(int32 a, int32 b) {
    return static_cast<int32>(static_cast<uint32>(a) + static_cast<uint32>(b));
}

// Bits that the cabinet shows if any module does.
void mergeBits(descUpsBox_t& box, const descModule_t& module) {
    const dataObject_t& data = module.data;
    const auto& detail = module.statusDetail.bits;
    dataObject_t& ups = box.Ups;
    ups.alarm.Warning |= data.alarm.Warning;
    ups.alarm.Anomaly |= data.alarm.Anomaly;
    ups.alarm.Alarm_Overload |= data.alarm.Alarm_Overload;
    ups.alarm.Fault |= data.alarm.Fault | data.alarm.Alarm_Temperature;

    ups.status.Output_Powered |= data.status.Output_Powered;
    ups.status.On_Bypass |= data.status.On_Bypass;
    ups.status.Line_Present |= data.status.Line_Present;
    ups.status.Shutdown_Active |= data.status.Shutdown_Active;
    ups.status.Shutdown_Imminent |= data.status.Shutdown_Imminent;
    ups.status.SWOUT |= !detail.OutputSwitchOpen;
    ups.status.SWMB |= detail.ManualBypassCommand;
    // Once set these three stay, since the cabinet's record brings them back at each run.
    box.boxStatus.SWBATT |= !detail.BatterySwitchOpen;
    box.externalSwitchStatus.SWIN |= !detail.InputSwitchOpen;
    box.externalSwitchStatus.SWBYP |= !detail.BypassSwitchOpen;

    const uint8 allButOk = data.extStatus.byte & 0x7F;
    ups.extStatus.byte = static_cast<uint8>(ups.extStatus.byte | allButOk);
    ups.extStatus.UPS_OK &= data.extStatus.UPS_OK;
    ups.switchStatus.byte = static_cast<uint8>(ups.switchStatus.byte | data.switchStatus.byte);
    ups.PMStatus.wrongPower |= data.PMStatus.wrongPower;
    ups.PMStatus.inputDisabled |= data.PMStatus.inputDisabled;
    ups.PMStatus.bitCmdUnsupported |= data.PMStatus.bitCmdUnsupported;
}

void mergeMeasures(Run& run, const dataObject_t& data) {
    dataObject_t& ups = run.box.Ups;
    ups.maxLoad = MAX<int16>(ups.maxLoad, data.maxLoad);
    for (int l = LINE1; l <= LINE3; ++l) {
        if (data.status.Output_Powered) {
            run.load[l].add(static_cast<uint32>(static_cast<int32>(data.Load[l])));
        }
        ups.Va[l] = addWrapping(ups.Va[l], data.Va[l]);
        ups.Watt[l] = addWrapping(ups.Watt[l], data.Watt[l]);
        ups.Iin[l] = ups.Iin[l] + data.Iin[l];
        ups.Iout[l] = addWrapping(ups.Iout[l], data.Iout[l]);
        ups.Iout_pk[l] = addWrapping(ups.Iout_pk[l], data.Iout_pk[l]);
        run.vin[l].addFrom(LN_VOLTTH, data.Vin[l]);
        run.vbyp[l].addFrom(LN_VOLTTH, data.Vbyp[l]);
        run.vout[l].addFrom(LN_VOLTTH, data.Vout[l]);
        run.uin[l].addFrom(LL_VOLTTH, data.Uin[l]);
        run.ubyp[l].addFrom(LL_VOLTTH, data.Ubyp[l]);
        run.uout[l].addFrom(LL_VOLTTH, data.Uout[l]);
    }
    // The two bounds differ on purpose: at exactly the threshold the autonomy is neither taken nor missed.
    if (data.Vbatp > VBATTH) {
        ups.Aut_time = data.Aut_time;
        ups.Carica_adj = data.Carica_adj;
    }
    if (data.Vbatp >= VBATTH) {
        run.noAutonomy = false;
    }
    run.vbatRS.addFrom(VBATTH, data.VbatRS);
    run.vbatp.addFrom(VBATTH, data.Vbatp);
    run.vbatn.addFrom(VBATTH, data.Vbatn);
    ups.Ibatp = addWrapping(ups.Ibatp, data.Ibatp);
    ups.Ibatn = addWrapping(ups.Ibatn, data.Ibatn);
    run.frqIn.addFrom(FREQTH, data.Frq_in);
    run.frqByp.addFrom(FREQTH, data.Frq_byp);
    run.frqOut.addFrom(FREQTH, data.Frq_out);
    ups.Temp0 = data.Temp0;
    ups.Temp1 = data.Temp1;
    ups.Temp2 = data.Temp2;
    ups.Temp3 = data.Temp3;
    ups.Temp4 = data.Temp4;
    ups.Temp5 = data.Temp5;
    ups.Temp6 = data.Temp6;
}

// The record that the run builds up, with what survives of the cabinet's.
void startRun(Run& run, int own, upsBoxQueriesData_t& ownBox) {
    const descUpsBox_t& found = ownBox.pVN->desc.upsBox;
    descUpsBox_t& box = run.box;
    std::memset(&box, 0, sizeof(box));
    InitUpsBox_UpsStatus(box.Ups);
    InitUpsBoxSubSystem(box.subSystem, pSysMgr->Cfg.Ups[own]);
    box.Batteries = found.Batteries;
    box.boxStatus = found.boxStatus;
    box.externalSwitchStatus = found.externalSwitchStatus;
    box.mcuStatus = found.mcuStatus;
    box.MCUMUStatus = found.MCUMUStatus;
    ownBox.MCUcommStatus.isGood = true;  // the own cabinet is reachable by definition
    box.Ups.Aut_time = 0xFFFF;
    box.Ups.Carica_adj = 255;
    box.Ups.PMStatus.bitCmdUnsupported = 0;
}

// A lost module: wiped as at registration, and reported by itself and its cabinet.
void wipeLostModule(Run& run, virtualNode_t& node) {
    mlink::ResetModuleNode(node);
    node.desc.module.data.PMStatus.commError = 1;
    node.desc.module.data.alarm.Anomaly = 1;
    run.box.Ups.PMStatus.commError = 1;
    run.box.Ups.alarm.Anomaly = 1;
}

void mergeModule(Run& run, virtualNode_t& node, const virtualNode_t* root) {
    node.desc.module.data.PMStatus.commError = 0;
    const descModule_t module = node.desc.module;
    run.actvElem = 1;
    mergeBits(run.box, module);
    run.moduleInOutputPower += module.data.status.Output_Powered;
    run.moduleInBatteryWorking += module.data.status.Battery_Working;
    run.moduleInLock += module.data.alarm.Lock;
    run.moduleInBypassBad += module.data.alarm.Bypass_Bad;
    run.moduleInBatteryLow += module.data.alarm.Battery_Low;
    mergeMeasures(run, module.data);
    run.outputDiffers =
        root != nullptr && module.data.status.Output_Powered != root->desc.sys.Ups.status.Output_Powered;
}

void storeMeans(Run& run) {
    dataObject_t& ups = run.box.Ups;
    for (int l = LINE1; l <= LINE3; ++l) {
        ups.Vin[l] = static_cast<uint16>(run.vin[l].value());
        ups.Uin[l] = static_cast<uint16>(run.uin[l].value());
        ups.Vbyp[l] = static_cast<uint16>(run.vbyp[l].value());
        ups.Ubyp[l] = static_cast<uint16>(run.ubyp[l].value());
        ups.Vout[l] = static_cast<uint16>(run.vout[l].value());
        ups.Uout[l] = static_cast<uint16>(run.uout[l].value());
        ups.Load[l] = static_cast<int16>(run.load[l].value() & 0xFF);
    }
    ups.VbatRS = static_cast<uint16>(run.vbatRS.value());
    ups.Vbatp = static_cast<uint16>(run.vbatp.value());
    ups.Vbatn = static_cast<uint16>(run.vbatn.value());
    ups.Frq_in = static_cast<uint16>(run.frqIn.value());
    ups.Frq_byp = static_cast<uint16>(run.frqByp.value());
    ups.Frq_out = static_cast<uint16>(run.frqOut.value());
}

// One set for the life of the process, started by the first run.
struct Timers {
    explicit Timers(time32_t now)
        : lock(DISAGREEMENT_LIMIT, now),
          bypassBad(DISAGREEMENT_LIMIT, now),
          batteryWorking(DISAGREEMENT_LIMIT, now),
          outputPowered(DISAGREEMENT_LIMIT, now) {}
    AnomalyTimer lock;
    AnomalyTimer bypassBad;
    AnomalyTimer batteryWorking;
    AnomalyTimer outputPowered;
};

Timers& timersAt(time32_t now) {
    static Timers timers(now);
    return timers;
}

bool timedTest(AnomalyTimer& timer, bool disagreement, time32_t now, const char* message) {
    const AnomalyVerdict verdict = timer.look(disagreement, now);
    if (verdict == AnomalyVerdict::JustDetected) {
        DBG_W_OF(OPERATION, "%s", message);
    }
    return verdict != AnomalyVerdict::No;
}

// Lock, bypass and battery: what the modules agree on, and for how long they don't.
void judgeAgreement(Run& run) {
    Timers& timers = timersAt(run.now);
    dataObject_t& ups = run.box.Ups;
    const int n = run.actvElem;
    if (run.moduleInLock != 0 && run.moduleInLock == n) {
        ups.alarm.Lock = 1;
    }
    if (timedTest(timers.lock, someButNotAll(run.moduleInLock, n), run.now, "Non tutti i moduli sono in Lock!!\n")) {
        ups.alarm.Fault = 1;
    }

    ups.alarm.Bypass_Bad = run.moduleInBypassBad != 0 && run.moduleInBypassBad == n;
    if (timedTest(timers.bypassBad, someButNotAll(run.moduleInBypassBad, n), run.now,
                  "Non tutti i moduli sono in BypassBad!!\n")) {
        ups.PMStatus.bypassBadAnomaly = 1;
        ups.alarm.Fault = 1;
    }

    ups.status.Battery_Working = run.moduleInOutputPower - run.moduleInBatteryWorking < run.moduleInBatteryWorking;
    const bool batteryDetected = timedTest(timers.batteryWorking, someButNotAll(run.moduleInBatteryWorking, n), run.now,
                                           "Non tutti i moduli funzionano da batteria!!\n");
    if (ups.status.Battery_Working) {
        ups.status.Line_Present = 0;
    }
    ups.PMStatus.batteryWorkingAnomaly = batteryDetected;
    if (batteryDetected) {
        ups.alarm.Anomaly = 1;
    }

    if (ups.status.Battery_Working) {
        ups.alarm.Battery_Low = n - run.moduleInBatteryLow < run.moduleInBatteryLow;
        if ((run.moduleInBatteryLow & ~n) != 0) {
            ups.alarm.Warning = 1;
        }
    } else {
        ups.alarm.Battery_Low = 0;
    }
}

// The output against the system's, the firmware of the plant, and what is left of UPS_OK.
void judgeSystem(Run& run) {
    Timers& timers = timersAt(run.now);
    dataObject_t& ups = run.box.Ups;
    const bool outputDetected =
        timedTest(timers.outputPowered, run.outputDiffers, run.now, "Lo stato Output_Powered non e' coerente!!\n");
    ups.PMStatus.outputPoweredAnomaly = outputDetected;
    if (outputDetected) {
        ups.alarm.Anomaly = 1;
    }
    const bool differentFirmware = pSysMgr->cntForSameBuild > DIFFERENTBUILDS;
    ups.PMStatus.differentFirmwareAnomaly = differentFirmware;
    if (differentFirmware) {
        ups.alarm.Anomaly = 1;
    }
    if (ups.alarm.Warning || ups.alarm.Anomaly || ups.alarm.Fault || ups.alarm.Lock) {
        ups.extStatus.UPS_OK = 0;
    }
}

void finishAutonomy(Run& run) {
    dataObject_t& ups = run.box.Ups;
    if (ups.Aut_time == 0xFFFF && run.noAutonomy) {
        ups.Aut_time = 0;
        if (ups.switchStatus.Q1) {
            DBG_E_OF(OPERATION, "Nessun modulo acceso ha comunicato l'autonomia\n");
        }
    }
    if (ups.Carica_adj == 255) {
        ups.Carica_adj = 0;
    }
}

// State of the shelter, and the number by which searchMaster knows the master's module.
void judgeShelter(Run& run, const ModuleQueriesData_t& slot, uint8& idu) {
    elemDesc_t& shelter = run.box.subSystem.UPSShelter[0];
    uint8 number = NOIDU;
    if (!slot.commStatus.active) {
        setElemAlarm(shelter, noneAlarm);
    } else if (!slot.commStatus.isGood) {
        setElemAlarm(shelter, commLostAlarm);
        slot.pVN->desc.module.data.extStatus.isMaster = 0;
    } else {
        setElemAlarm(shelter, faultAlarm);  // a good module too, deliberately
        if (slot.pVN->desc.module.data.extStatus.isMaster) {
            number = static_cast<uint8>(CABPAddr * 8 + 177);
        }
    }
    idu = number;  // at once: the bus thread reads it unlocked, and sends it to all cards
}

void publish(const Run& run, const ModuleQueriesData_t& slot, virtualNode_t& boxNode) {
    std::memcpy(&boxNode.desc.upsBox, &run.box, sizeof(run.box));
    nominal_t nominal;
    std::memset(&nominal, 0, sizeof(nominal));
    nominal.timestamp = run.now;
    if (slot.pVN != nullptr && slot.commStatus.isGood) {
        nominal.VA = slot.pVN->nominal.VA;
        nominal.W = slot.pVN->nominal.W;
    }
    std::memcpy(&boxNode.nominal, &nominal, sizeof(nominal));
    if (slot.pVN != nullptr) {
        std::memcpy(&boxNode.identification, &slot.pVN->identification, sizeof(boxNode.identification));
    }
}

}  // namespace

void MLINKMgr::AggregateUPS(ModuleQueriesData_t (*modules)[MAXUPSxUPSBOX]) {
    ModuleQueriesData_t& slot = (*modules)[0];
    Run run;
    run.now = NOW();
    const struct timespec clock = monotonicNow();
    if (elapsedMs(lastTime, clock) <= PACE) {
        return;
    }
    lastTime = clock;
    if (slot.commStatus.active && slot.pVN == nullptr) {
        DBG_E("Grave errore, puntatore ai dati del modulo %d non inizializzato!!\n", 1);
        DBG_E("ESCO\n");
        return;
    }
    CABPMgr* bus = pSysMgr->pThCABP;
    const int own = ownIndex();
    upsBoxQueriesData_t& ownBox = bus->upsBox[own];
    if (ownBox.pVN == nullptr) {
        return;
    }

    bus->lockCABPData();
    startRun(run, own, ownBox);
    const virtualNode_t* root = pSysMgr->pVirtualUPSMgr != nullptr ? pSysMgr->pVirtualUPSMgr->virtualUPS : nullptr;
    if (isModuleGood(slot)) {
        mergeModule(run, *slot.pVN, root);
        if (slot.pVN->desc.module.data.extStatus.Clock_Update) {
            RefreshClockModule(FIRSTMODULE);  // waits for the exchange, with the data lock held
        }
    } else if (slot.commStatus.active) {
        wipeLostModule(run, *slot.pVN);
    }
    judgeAgreement(run);
    judgeSystem(run);
    storeMeans(run);
    finishAutonomy(run);
    dataObject_t& ups = run.box.Ups;
    ups.alarm.Alarm_Temperature = ownBox.extendedBoardBox.Status.Cabinet_Overtemp;
    if (!ups.status.SWOUT) {
        ups.alarm.Anomaly = 1;
    }
    if (ups.status.SWMB) {
        ups.alarm.Warning = 1;
    }
    run.box.timestamp = NOW();
    if (isModuleGood(slot)) {
        ups.timestamp = run.now;
    } else {
        DBG_W("Nessun modulo e' in buono stato di comunicazione\n");
        ups.timestamp = 0;
    }
    judgeShelter(run, slot, ownBox.extendedBoardBox.idu);
    publish(run, slot, *ownBox.pVN);
    bus->unlockCABPData();

    runModulePanels();
}

// Commands that other processes have written into the modules' panels.
void MLINKMgr::runModulePanels() {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        virtualNode_t* node = ModulesData[id][0].pVN;
        if (node == nullptr) {
            continue;
        }
        const char letter = static_cast<char>('A' + id);
        const uint8 value = node->panel.value;  // once: another process may write at any instant
        if (value == CMD_NONE) {
            continue;
        }
        if (value == CMD_QPR_OFF) {
            moduleOff(letter, FIRSTMODULE);
        } else if (value == CMD_QPR_POWERON) {
            if (!node->desc.module.data.PMStatus.wrongPower) {
                moduleOn(letter, FIRSTMODULE);
            }
        } else if (value < CMD_QPR_OFF) {
            DBG_E_OF(OPERATION, "Comando (%d) non supportato!!\n", value);
        } else {
            DBG_W_OF(OPERATION, "Valore non previsto (%d)\n", value);
        }
        node->panel.value = CMD_NONE;
    }
}
