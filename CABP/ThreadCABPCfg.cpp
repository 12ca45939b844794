// What the master tells the other boards of the plant: the configuration to a cabinet that has asked for it, parameters
// and battery tests to the SK boards, the unlocking to the other cards. A transaction runs on a single-shot thread
// while the bus thread waits, which must not hold mutexCABPChannel then.
#include <cstring>

#include "CABP/ThreadCABP.h"
#include "Common/SysMgr.h"

namespace {

constexpr int SC_ATTEMPTS = 2;
constexpr unsigned long SC_PAUSE_MS = 20;  // after an attempt that failed
constexpr int MAXREPLYDATA = 0xFF;         // data bytes a single-shot hands over at most
constexpr int OPTCOM_RELAYS = 8;           // relays of an option board
constexpr int BASE_RELAYS = 4;             // relays that are there without it
constexpr uint16 NORMALON_MASK = 0x8000;   // rest state in the word of a relay

// Low byte of the first parameter word: what is fitted in the cabinet.
constexpr uint8 ISPRESENT_SENSORTEMP1 = 0x20;
constexpr uint8 ISPRESENT_SENSORTEMP2 = 0x10;
constexpr uint8 ISPRESENT_SENSORTEMP3 = 0x08;
constexpr uint8 ISPRESENT_EXTSENSORTEMP4 = 0x04;
constexpr uint8 ISPRESENT_HUMIDITYSENSOR = 0x01;
// Option board, in the three bits of OPT_MASK. The absence of one has a code of its own, which is never sent: it is
// told as board B is.
constexpr uint8 OPT_MASK = 0xC2;
constexpr uint8 ISPRESENT_OPTA_BOARD = static_cast<uint8>(~0xC0 & OPT_MASK);
constexpr uint8 ISPRESENT_OPTC_BOARD = static_cast<uint8>(~0x82 & OPT_MASK);
constexpr uint8 ISPRESENT_OPTB_BOARD = static_cast<uint8>(~0xC2 & OPT_MASK);

// Offsets of the parameters.
enum SIParam_e : int {
    SI_CFG1_LOW = 1,
    SI_CFG2 = 2,
    SI_CFG3 = 4,
    SI_DELAYACTR1 = 6,  // eight relays
    SI_NORMALON = 14
};

uint8 presenceBits(const upsBoxCfg_t& box) {
    static constexpr uint8 sensorBit[MAXSENSTEMP] = {ISPRESENT_SENSORTEMP1, ISPRESENT_SENSORTEMP2,
                                                     ISPRESENT_SENSORTEMP3, ISPRESENT_EXTSENSORTEMP4};
    int bits = 0;
    for (int i = 0; i < MAXSENSTEMP; ++i) {
        bits |= box.sensTPresent[i] ? sensorBit[i] : 0;
    }
    bits |= box.hygroPresent ? ISPRESENT_HUMIDITYSENSOR : 0;
    if (ISOPTCOMA()) {
        bits |= ISPRESENT_OPTA_BOARD;
    } else if (ISOPTCOMC()) {
        bits |= ISPRESENT_OPTC_BOARD;
    } else {
        bits |= ISPRESENT_OPTB_BOARD;
    }
    return static_cast<uint8>(bits);
}

uint8 batteryBits(const upsBoxCfg_t& box) {
    int bits = 0;
    for (int i = 0; i < MAXBATTxCOMBOBOX; ++i) {
        bits |= (box.batteryPresent[i] ? 1 : 0) << i;
    }
    return static_cast<uint8>(bits);
}

void fillParamSI(uint8* pParam, const PlantCfg& Cfg, const upsBoxCfg_t& box) {
    pParam[SI_CFG1_LOW] = presenceBits(box);
    pParam[SI_CFG2 + 1] = batteryBits(box);
    std::memcpy(pParam + SI_CFG3, pParam + SI_CFG2, sizeof(uint16));
    const uint16 relays[OPTCOM_RELAYS] = {Cfg.word182, Cfg.word183, Cfg.word184, Cfg.word185,
                                          Cfg.word186, Cfg.word187, Cfg.word188, Cfg.word189};
    const int normalOnRelays = ISOPTCOMA() ? OPTCOM_RELAYS : BASE_RELAYS;
    int normalON = 0;
    for (int i = 0; i < OPTCOM_RELAYS; ++i) {
        pParam[SI_DELAYACTR1 + i] = static_cast<uint8>(relays[i] & 0xFF);
        if (i < normalOnRelays && (relays[i] & NORMALON_MASK) != 0) {
            normalON |= 1 << i;
        }
    }
    pParam[SI_NORMALON] = static_cast<uint8>(normalON);
}

// The battery test as the SK boards were last told of it; whether they heard it doesn't matter.
bool monitorUnitKnowTB = false;

}  // namespace

void setParamSI(uint8* pParam, uint8 dest) {
    std::memset(pParam, 0, SIPARAMLEN);
    const int id = dest - FIRSTSKBOX;
    if (id < 0) {
        // The board of a battery cabinet: this plant has none.
        DBG_E("Si configura un armadio BATTERIE non presente!!\n");
    } else if (id >= MAXUPSBOX || !pSysMgr->Cfg.Ups[id].present) {
        DBG_E("Si configura un armadio UPS non presente!!\n");
    } else {
        fillParamSI(pParam, pSysMgr->Cfg, pSysMgr->Cfg.Ups[id]);
    }
    dumphex("paramSI", SIPARAMLEN, pParam);
}

bool isFirstCfg(uint8 boxId, uint16 newType) {
    return pSysMgr->isFirstCfg(boxId, newType);
}

int CABPMgr::SendConfig(uint8 Dest) {
    pckStruct query;
    query.Src = CABPAddr;
    query.Dest = Dest;
    query.MainCmd = 'S';
    query.SubCmd = 'C';
    query.pParam = &pSysMgr->Cfg;
    query.ParamLen = sizeof(pSysMgr->Cfg);
    dumphex("send SC:", query.ParamLen, query.pParam);
    DBG_P("Salvo la configurazione nel UPSBOX:%c\n", boxLetter(Dest));

    uint8 reply[MAXREPLYDATA] = {};
    const uint16 replyDataLen = CABP_GetReplyDataLen(query);
    int ret = FAIL;
    int cnt = SC_ATTEMPTS;
    while (ret != SUCC && cnt > 0) {
        --cnt;
        DBG_P("cnt:%d\n", cnt);
        singleQCMgr* const sQC = InsertSingleQC(query, replyDataLen, reply, &ret);
        while (!WaitSingleQC(sQC, WAIT_CABPSQC)) {
        }
        if (ret != SUCC) {
            DBG_E("Errore nell'invio del comando %c%c a:%c\n", query.MainCmd, query.SubCmd, boxLetter(Dest));
            msleep(SC_PAUSE_MS);
        }
    }
    return ret;
}

void CABPMgr::monitorUnitTB() {
    const virtualNode_t* const root = sys;
    if (root == nullptr) {
        return;
    }
    const bool inProgress = root->desc.sys.Ups.extStatus.Test_in_progress != 0;
    if (inProgress == monitorUnitKnowTB) {
        return;
    }
    DBG_P("%s TEST BATTERIE\n", inProgress ? "INIZIO" : "FINE");
    uint8 param = inProgress ? 1 : 0;
    pckStruct query;
    query.Src = CABPAddr;
    query.Dest = 'X';  // none yet
    query.MainCmd = 'T';
    query.SubCmd = 'B';
    query.pParam = &param;
    query.ParamLen = sizeof(param);
    const uint16 replyDataLen = CABP_GetReplyDataLen(query);
    for (int id = 0; id < MAXUPSBOX; ++id) {
        const upsBoxCfg_t& box = pSysMgr->Cfg.Ups[id];
        if (!box.present || box.upsBoxType != ComboBox) {
            continue;
        }
        uint8 reply[MAXREPLYDATA] = {};
        int status = FAIL;
        query.Dest = static_cast<uint8>(FIRSTSKBOX + id);
        singleQCMgr* const sQC = InsertSingleQC(query, replyDataLen, reply, &status);
        while (!WaitSingleQC(sQC, WAIT_CABPSQC)) {
        }
        if (status != SUCC) {
            DBG_E("Errore nell'invio del comando %c%c alla MU %c\n", query.MainCmd, query.SubCmd, 'A' + id);
        }
    }
    monitorUnitKnowTB = inProgress;
}

void CABPMgr::sysMCUUnlock() {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        const uint8 Add = static_cast<uint8>(FIRSTUPSBOX + id);
        if (!pSysMgr->Cfg.Ups[id].present || Add == CABPAddr) {
            continue;
        }
        pckStruct query;
        query.Src = CABPAddr;
        query.Dest = Add;
        query.MainCmd = 'C';
        query.SubCmd = 'U';
        AddAsyncQC(query);
    }
}
