// The thread that owns the bus between the cabinets. The node is either master, which polls the bus from its queues, or
// slave, which listens, answers and overhears; both roles feed the same aggregation and status file.
//
// Locks, in this order: mutexState before mutexCABPChannel; mutexCABPChannel is released before mutexCABPData is taken;
// mutexCABPData before mutexQ. mutexQCSeq of the system manager is only ever tried here. Nothing that runs with
// mutexCABPData held takes it again.
#ifndef CABP_THREADCABP_H
#define CABP_THREADCABP_H

#include <QtCore/QString>
#include <atomic>
#include <ctime>

#include "CABP/CABP.h"
#include "CABP/ClockMgr.h"
#include "Common/QueuesMgr.h"
#include "Common/myMutex.h"
#include "Config/SysCfgMgr.h"

class VirtualUPSMgr;
namespace aggr {
struct Pass;
}

enum CABP_status_e : uint8 { Slave = 0, Master = 1 };

class CABPMgr : public QueuesMgr, public ClockMgr {
    Q_OBJECT
  public:
    /// Error score at which an element counts as lost.
    static constexpr int MAXPCKERROR = 3 * 2;
    static constexpr int TRASH_REF = 0x0F;
    static constexpr int COUNTDOWN_ITERATION = -1;

    /// One bus transaction on a thread of its own. The caller owns all that the fields point to and keeps it alive
    /// until the wait ends.
    class singleQCMgr : public QThread {
      public:
        singleQCMgr(CABPMgr* owner, pckStruct* query, uint8 replyDataLen, uint8* pData, int* status);
        void run() override;

      private:
        CABPMgr* m_owner;
        pckStruct* sQC_query;
        uint8 sQC_replyDataLen;
        uint8* sQC_pData;
        int* sQC_status;
    };

    /// Opens the bus port. The node at 0xEA starts as master, all others as slaves.
    explicit CABPMgr(QObject* parent);
    ~CABPMgr() override;

    void run() override;
    /// Asks the thread to end; takes effect when its pass ends.
    void Stop();

    // Master and slave machine.
    void StateMachine();
    void MasterAction();
    void SlaveAction();
    void SniffReply(uint8* pck);
    /// One transaction of the round: 0 or 1 done, FAIL, COMMERR, BUSY. Takes mutexCABPChannel, then mutexCABPData.
    int ManageCmd(QCMgr* elem);
    void RecoveryBus();
    /// A promotion frees the channel if the role itself holds it, a demotion tries to take it. Under mutexState.
    void setState(CABP_status_e newSt);
    CABP_status_e CABPStateMachineState() const;

    // Diagnostic texts; guarded by a private leaf lock.
    void saveCurrPck(QCMgr* e);
    void saveLastErr(QCMgr* e);
    QString getCurrPck();
    QString getLastErr();
    /// Back to "LastErr:".
    void clearLastErr();
    /// Copies "WAIT" with its terminator, nothing else.
    void getDataShm(char* st);

    void lockCABPData();
    void unlockCABPData();

    // Under mutexForcedonBypass.
    int forcedonBypassStatus();
    void setForcedonBypass();
    void resetForcedonBypass();
    void initForcedonBypass();
    void incGuiForcedonBypass();
    void decGuiForcedonBypass();

    // Registration and data.
    bool isMCU_NODE(uint8 Addr);
    bool isMU_NODE(uint8 Addr);
    bool AddrGood(uint8 Addr);
    /// Cabinet id of an address; an SK address outside 0x0A to 0x0D stays itself; 255 for a bad address.
    uint8 add2id(uint8 Add);
    /// Non-zero for an MCU that is registered.
    int isBoardPresent(uint8 key);
    void InitSysData(VirtualUPSMgr& data, PlantCfg& plant);
    int RegisterNode(uint8 Add);
    int DeRegisterNode(uint8 Add);
    int RegisterElem(const pckStruct& query);
    int DeRegisterElem(const pckStruct& query);
    int AddAsyncQC(const pckStruct& query);
    int RemoveAsyncQC(const pckStruct& query);
    bool AsyncQCisEmpty();
    int AsyncQCSize();
    void RegisterBoxNode(PlantCfg& Cfg);
    void DeRegisterBoxNode(PlantCfg& Cfg);
    /// A guarded copy of the cabinet 'A' to 'D'; without data the query for them is queued.
    void GetIdentification(uint8 boxCh, identification_t* pId);
    void GetNominal(uint8 boxCh, nominal_t* pNom);
    void GetSysStatus(descSys_t& dataSys);
    time_t getLastErrorCntResetTime();
    void clearErrorCnt();
    void wipeQueues();
    /// Empties the receive queue of the bus port.
    void FlushRcvFifo();

    // Single-shot queries and inbound commands.
    /// Starts a transaction; only the low byte of `replyDataLen` counts. `*status` gets 0 or the failure.
    singleQCMgr* InsertSingleQC(pckStruct& query, uint16 replyDataLen, uint8* pData, int* status);
    /// Waits `timeout` ms; true once the thread has ended (it is deleted then). A null thread counts as ended.
    bool WaitSingleQC(singleQCMgr* sQC, int timeout);
    void ReplyToQuery(pckStruct& query);
    void ManageCommand(pckStruct& query);
    /// Fills the CN query out of CNData. Nothing calls it: no CN frame leaves this card.
    void prepareCNPck(pckStruct& CNpck, uint8 nextMaster);
    void CABPStateMachineReset();
    void CABPStateMachineUserConfirm(uint8 newUserCABPAddr, UPS_Type_e newUserBoxType);

    // Configuration push and unit monitor.
    /// Two attempts to send the plant to a cabinet. 0 on success. mutexCABPChannel must not be held.
    int SendConfig(uint8 Dest);
    void monitorUnitTB();
    void sysMCUUnlock();

    // Aggregation. On the bus thread only.
    /// Folds the cabinets' records into the system's and writes the status file; at most once in 201 ms, otherwise it
    /// returns at once, as without a tree. Takes mutexCABPData for the whole pass, the file included.
    void AggregateBox();
    // The states of the elements in the tree; the caller holds mutexCABPData.
    /// The system's view of each cabinet.
    void updateItems();
    /// The cabinet's view of its module, by the age of its data. `boxCh` is 'A' to 'D'.
    void checkUpsBoxSubSystem(uint8 boxCh);
    /// The system's view of the cabinets once its own data are too old.
    void checkSysSubSystem();

    upsBoxQueriesData_t upsBox[MAXUPSBOX];  // by cabinet index; guarded by mutexCABPData
    bool EPOLatched;
    std::atomic<bool> EPOReset;
    std::atomic<int> thID;         // kernel thread id, -1 until run()
    std::atomic<int32> iteration;  // completed rounds, saturating at 1000
    CNData_t CNData;               // bus thread only

  protected:
    myMutex* mutexForcedonBypass;
    int forcedOnBypass;             // -1 unknown, 0 no, 1 yes
    int guiForcedOnBypass;          // pending requests of the operator side
    std::atomic<virtualUPS_t> sys;  // root of the tree, or null
    myMutex* mutexState;
    myMutex* mutexCABPChannel;  // the right to transmit
    myMutex* mutexCABPData;     // the virtual UPS data
    std::atomic<CABP_status_e> state;
    std::atomic<bool> stopped;
    uint8 cntpckUnverified;
    std::atomic<time_t> timeWasMaster;
    bool unknownDevPresent;
    uint16 dipSwBoxType;
    uint8 userCABPAddr;
    UPS_Type_e userBoxType;
    struct timespec lastTime;  // monotonic time of the last aggregation
    QString currPckStr;
    QString lastErrStr;
    std::atomic<time_t> errorCntTimeCleread;

    // mutexCABPChannel is held by the role itself, from a demotion to the next promotion. Under mutexState.
    bool channelHeldByRole;
    QMutex mutexDiag;  // leaf: the two texts

  private:
    // Steps of the aggregation; `now` is the wall time of the pass.
    void updateItems(time32_t now);
    void checkUpsBoxSubSystem(uint8 boxCh, time32_t now);
    void checkSysSubSystem(time32_t now);
    void scanContributors(aggr::Pass& pass);
    void scanSwitches(aggr::Pass& pass);
    void answerConfigUpdate(int id);
    void publish(aggr::Pass& pass, virtualNode_t& root);
    void writeStatusFile(time32_t now, const descSys_t& tempSys, const virtualNode_t& root);
    /// Carries out what stands in the root's panel.
    void runSystemPanel(virtualNode_t& root, const descSys_t& published);
    // Steps of the roles.
    void pushConfigurations();
    bool drainAsyncQC();
    void endFixRound();
    void askFixQC();
    void foldForcedOnBypass();
    int countFailure(QCMgr* elem, int ret, uint8 fault);
    void loseFirstBox();
    void healErrorsOf(const pckStruct& reply);
    void unlockRoleChannel();
    void releaseRoleChannel();
    // Commands that act on this card.
    void takeCN(const pckStruct& query);
    void resetEPO(const pckStruct& query);
    void halt(const pckStruct& query);
};

/// Fills the 16 parameter bytes of an SI query for the SK board `dest`; all 0 where there is no such cabinet.
void setParamSI(uint8* pParam, uint8 dest);
/// See SysCfgMgr::isFirstCfg, of the system manager.
bool isFirstCfg(uint8 boxId, uint16 newType);

#endif
