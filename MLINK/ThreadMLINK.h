// The thread that owns the module line: it serves the queues one exchange at a time, stores good replies, keeps the
// communication state of the modules and folds the own module into the cabinet's record at most once a second.
//
// Locks: mutexMLinkChannel is released before mutexMLinkData is taken. mutexMLinkData before mutexQ. The aggregation
// holds mutexCABPData of the bus manager while its clock refresh waits for mutexMLinkChannel.
#ifndef MLINK_THREADMLINK_H
#define MLINK_THREADMLINK_H

#include <QtCore/QString>
#include <atomic>
#include <ctime>

#include "Common/QueuesMgr.h"
#include "Common/myMutex.h"
#include "MLINK/MLINK.h"

enum MLink_status_e : uint8 { IdleMLink = 0, MasterMLink = 1 };

class MLINKMgr : public QueuesMgr {
    Q_OBJECT
  public:
    static constexpr int MAXPCKERROR = 3 * 2;
    static constexpr int COUNTDOWN_ITERATION = -1;

    /// One query on a thread of its own, to the own module or, wrapped in a bus query, to another cabinet's. The caller
    /// owns all that the fields point to and keeps it alive until the wait ends.
    class singleQCMgr : public QThread {
      public:
        singleQCMgr(MLINKMgr* owner, uint8 boxId, pckStruct* query, uint8 replyDataLen, uint8* pData, int* status);
        ~singleQCMgr() override;
        void run() override;

      private:
        void runTunnelled();
        void runOwn();

        MLINKMgr* m_owner;
        uint8 sQC_boxId;
        pckStruct* sQC_query;
        uint8 sQC_replyDataLen;
        uint8* sQC_pData;
        int* sQC_status;
    };

    /// Opens the module port. The thread starts idle.
    explicit MLINKMgr(QObject* parent);
    ~MLINKMgr() override;

    void run() override;
    void Stop();
    /// Lets the thread leave its idle state; the bus thread calls it when registration is over.
    void unlockIdle();
    /// Back to idle; nothing calls it.
    void forceIdle();
    void wipeQueues();
    void StateMachine();
    void setState(MLink_status_e newSt);
    /// Completed rounds, at most 1000; -1 while idle.
    int32 getIteration() const;

    QString getCurrPck();
    QString getLastErr();
    void clearLastErr();
    void saveCurrPck(QCMgr* e);
    void saveLastErr(QCMgr* e);

    void lockMLinkData();
    void unlockMLinkData();

    // Queries.
    /// Starts a query; `*status` gets 0 or minus errnoMLink. Towards another cabinet it always ends as 0.
    singleQCMgr* InsertSingleQC(uint8 boxId, pckStruct& query, uint8 replyDataLen, uint8* pData, int* status);
    /// True once the thread has ended (it is deleted then); a null thread counts as ended.
    bool WaitSingleQC(singleQCMgr* sQC, int timeout);
    /// One command, waited for; `cmd.Src` is the cabinet's letter. 0, -1 not ready, or minus errnoMLink.
    int Send(pckStruct& cmd);
    /// One exchange and its consequences: 0 done, -1, -2 refused as busy, -3 failed while good.
    int ManageCmd(QCMgr* elem);

    // Registration and access. `MCUAdd` is a cabinet's bus address, `modAdd`, `Add`, `UPSAdd` a module's address.
    int RegisterModule(uint8 MCUAdd, uint8 modAdd);
    int DeRegisterModule(uint8 MCUAdd, uint8 modAdd);
    int RegisterElem(const pckStruct& query);
    int DeRegisterElem(const pckStruct& query);
    int AddAsyncQC(const pckStruct& query, bool verbose);
    int RemoveAsyncQC(const pckStruct& query);
    int RefreshClockModule(uint8 modAdd);
    void GetIdentification(uint8 MCUAdd, uint8 Add, identification_t* pId);
    void GetNominal(uint8 MCUAdd, uint8 Add, nominal_t* pNom);
    void GetUPSStatusDetail(uint8 MCUAdd, uint8 UPSAdd, statusCoding_t* pStatusDetail);
    void SetUPSStatusDetail(uint8 MCUAdd, uint8 UPSAdd, statusCoding_t* pStatusDetail);
    void GetUPSStatus(uint8 MCUAdd, uint8 UPSAdd, descModule_t* pDataModule);
    void GetUPSCommStatus(uint8 MCUAdd, uint8 UPSAdd, commStatus_t* pCommStatus);
    void clearErrorCnt();

    // System commands: 0, -1 without a master or a ready module, or minus errnoMLink. They block until the command's
    // thread has ended, and take no data lock.
    int sysPowerOn();
    int sysShutdown(uint16 delay_shut);
    int sysRestore(uint16 delay_shut, uint16 delay_reboot);
    int sysDeleteCmd();
    int sysBatteryTest(uint8 (&paramTB)[3]);
    int sysBatteryCheck();
    int sysInv_Byp(char cmd);
    int sysBypsUnlock();
    void moduleOn(char boxCh, char modCh);
    void moduleOff(char boxCh, char modCh);
    void prepareCM02(pckStruct& pck, char boxCh, char modCh, uint8 (&param)[2]);
    int sendCM02(char boxCh, char modCh, uint8 (&param)[2]);
    void enSa_Active(char boxCh, char modCh);
    void enSa_InverterOn(char boxCh, char modCh);

    /// Slot of a module, or null: every flat index goes through here.
    ModuleQueriesData_t* slotOf(int boxId, int modAdd);

    ModuleQueriesData_t ModulesData[MAXUPSBOX][MAXUPSxUPSBOX];  // guarded by mutexMLinkData

  protected:
    void idlePass();
    void masterPass();
    void drainAsyncQC();
    void endOfRound();
    void runModulePanels();
    /// Up to five tries at the master's module while it refuses as busy. Logs under the name of the operation.
    int sendToMaster(const char* operation, pckStruct& query);
    int sendModuleSwitch(char boxCh, char modCh, uint8 onOff);
    /// Health record of the own module `Dest`, null where it has none.
    commStatus_t* statusOf(uint8 Dest);
    /// Node of a registered module, or null with a line in the log under the operation's name.
    virtualNode_t* nodeOf(const char* operation, uint8 MCUAdd, uint8 UPSAdd);
    void requestData(uint8 MCUAdd, uint8 Add, uint8 MainCmd, uint8 SubCmd);
    /// Queues a query to another cabinet's module, wrapped in a bus query.
    int queueTunnelled(uint8 boxId, const pckStruct& query);
    /// Folds the own cabinet's row into the cabinet's record, at most once a second; then the modules' panels.
    void AggregateUPS(ModuleQueriesData_t (*modules)[MAXUPSxUPSBOX]);

    std::atomic<bool> requestHALT;
    std::atomic<int> thID;
    std::atomic<int32> iteration;
    std::atomic<bool> stopped;
    myMutex* mutexState;
    myMutex* mutexMLinkChannel;
    myMutex* mutexMLinkData;
    std::atomic<MLink_status_e> state;
    std::atomic<bool> requestUnlockIdlePending;
    uint8 lastidu;
    struct timespec lastTime;
    QString currPckStr;
    QString lastErrStr;
    QMutex mutexDiag;       // leaf: the two texts
    uint8 errnoOfExchange;  // errnoMLink of the module thread's last exchange, copied while the channel was held
};

#endif
