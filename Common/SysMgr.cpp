#define TRACELEVEL_DEBUG
#include "Common/SysMgr.h"

#include "CABP/ThreadCABP.h"
#include "MLINK/ThreadMLINK.h"
#include "Measure/VirtualUPSMgr.h"

namespace {

constexpr uint8 CNT_SAME_BUILD = 2;  // CN frames of the own build until the builds count as alike
constexpr int BUILD_UNKNOWN = -1;
constexpr int MODULE_INDEX = 0;  // a cabinet has one module

char letterOf(int boxId) {
    return static_cast<char>('A' + boxId);
}

uint8 addressOf(int boxId) {
    return static_cast<uint8>(FIRSTUPSBOX + boxId);
}

}  // namespace

SystemMgr::SystemMgr()
    : pThMLink(nullptr),
      pThCABP(nullptr),
      mutexQCSeq(nullptr),
      pVirtualUPSMgr(nullptr),
      build(BUILD_UNKNOWN),
      cntForSameBuild(CNT_SAME_BUILD) {
    DBG_P("\n");
    pSysMgr = this;  // here and not by the creator: the bus thread uses it as soon as it starts
    mutexQCSeq = new myMutex("mutexQCSeq");
    startThreads();
}

SystemMgr::~SystemMgr() {
    DBG_P("Fermo la thread CABP\n");
    pThCABP->Stop();
    DBG_P("Attendo arresto effettivo thread CABP\n");
    pThCABP->wait();
    DeRegisterAll();
    delete pThMLink;
    delete pThCABP;
    delete mutexQCSeq;
}

void SystemMgr::startThreads() {
    // Only made here: the bus thread starts it, once the plant is registered.
    pThMLink = new MLINKMgr(nullptr);
    pThMLink->moveToThread(pThMLink);
    pThCABP = new CABPMgr(nullptr);
    pThCABP->moveToThread(pThCABP);
    DBG_P("Avvio la thread CABP\n");
    pThCABP->start(QThread::InheritPriority);
}

void SystemMgr::RegisterAll() {
    if (pVirtualUPSMgr != nullptr) {
        DBG_E("SharedMemory gia' inizializzata!!!\n");
        return;
    }
    pVirtualUPSMgr = new VirtualUPSMgr(Cfg);
    pThCABP->InitSysData(*pVirtualUPSMgr, Cfg);
    // A cabinet's bypass is never registered: no bypass module exists in this plant.
    for (int i = 0; i < MAXUPSBOX; ++i) {
        if (!Cfg.Ups[i].present) {
            DBG_D("Armadio %c NON presente!!\n", letterOf(i));
            leaveModuleOut(i);
            continue;
        }
        DBG_D("Armadio %c presente: NON registro il modulo BYPASS\n", letterOf(i));
        DBG_D("           Passo ora alla registrazione di TUTTI gli UPS presenti\n");
        DBG_D("           mod id %d box id %d\n", MODULE_INDEX, i);
        if (Cfg.Ups[i].modulePresent[MODULE_INDEX]) {
            pThMLink->RegisterModule(addressOf(i), FIRSTMODULE);
            DBG_D("Modulo UPS %c dell'armadio %c presente: registrato\n", FIRSTMODULE, letterOf(i));
        } else {
            leaveModuleOut(i);
        }
    }
    DBG_P("Avvio la thread MLink %p...\n", static_cast<void*>(pThMLink));
    pThMLink->start(QThread::InheritPriority);
    DBG_P("... avviata thread MLink %p\n", static_cast<void*>(pThMLink));
    pThCABP->clearErrorCnt();
    pThCABP->clearLastErr();
    pThCABP->RegisterBoxNode(Cfg);
    pThCABP->FlushRcvFifo();
}

// The cabinet has no module: its slot takes no part.
void SystemMgr::leaveModuleOut(int boxId) {
    commStatus_t& commStatus = pThMLink->slotOf(boxId, FIRSTMODULE)->commStatus;
    commStatus.active = false;
    commStatus.isGood = false;
}

void SystemMgr::DeRegisterAll() {
    if (pThMLink->isRunning()) {
        DBG_P("Fermo la thread MLink\n");
        pThMLink->Stop();
        DBG_P("Attendo arresto effettivo thread MLink\n");
        pThMLink->wait();
    }
    pThCABP->DeRegisterBoxNode(Cfg);
    // All four, present or not.
    for (int i = 0; i < MAXUPSBOX; ++i) {
        DBG_D("DeRegistro armadio %c: DeRegistro il modulo BYPASS\n", letterOf(i));
        DBG_D("           Passo ora alla De-registrazione di TUTTI gli UPS\n");
        pThMLink->DeRegisterModule(addressOf(i), FIRSTMODULE);
        DBG_D("Modulo UPS %c DeRegistrato\n", FIRSTMODULE);
    }
    pThCABP->wipeQueues();
    pThMLink->wipeQueues();
    delete pVirtualUPSMgr;
    pVirtualUPSMgr = nullptr;
}

int SystemMgr::searchMaster(uint8& boxId, uint8& upsId) {
    DBG_D("SEARCHING MASTER!!\n");
    for (boxId = 0; boxId < MAXUPSBOX; ++boxId) {
        if (!Cfg.Ups[boxId].present) {
            continue;
        }
        const upsBoxQueriesData_t& box = pThCABP->upsBox[boxId];
        const bool isGood = box.MCUcommStatus.isGood;
        const bool isMaster = box.pVN != nullptr && box.pVN->desc.upsBox.Ups.extStatus.isMaster != 0;
        DBG_D("BOX %c presente: isGood:%c isMaster:%c\n", letterOf(boxId), isGood ? 'T' : 'F', isMaster ? 'T' : 'F');
        if (isGood && isMaster) {
            // The board counts its modules from 1, in three bits.
            upsId = static_cast<uint8>((box.extendedBoardBox.idu - 1) & 0x07);
            return 0;
        }
    }
    return -1;
}
