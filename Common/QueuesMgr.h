// Queries and their queues, under both links: each link's thread picks a query, sends it, waits for the reply, hands
// the reply on and counts errors. The walking itself is the link's.
#ifndef COMMON_QUEUESMGR_H
#define COMMON_QUEUESMGR_H

#include <QtCore/QMutex>
#include <QtCore/QQueue>
#include <QtCore/QThread>
#include <QtCore/QTimer>
#include <list>
#include <map>

#include "Common/Common.h"

/// Health of one polled element.
struct commStatus_t {
    bool active;           // being polled
    time32_t lastPckGood;  // last decrement of the score; 0 after a failed packet
    int32 errorPck;        // error score
    int32 errorCnt;        // times the limit was reached
    bool isGood;           // counts as reachable
} PACKED;
static_assert(sizeof(commStatus_t) == 14, "commStatus_t");

/// Description of one query. Owns nothing: `pParam` is borrowed.
struct pckStruct {
    uint8 Src = 0;
    uint8 Dest = 0;
    uint8 MainCmd = 0;
    uint8 SubCmd = 0;
    void* pParam = nullptr;
    uint16 ParamLen = 0;
};

/// A protocol's frame builder: allocates the frame with malloc, returns its length.
using BuildQuery_t = uint16 (*)(const pckStruct& query, uint8*& frame);

/// After a failed query: raises the score by half the limit. A single failure never reaches the limit, two in a row
/// always do.
void incErrorPck(commStatus_t* pCommSt, int limit);
/// After a good reply: lowers the score at most once in 30 s, sets isGood in every case.
void decErrorPck(commStatus_t* pCommSt);

/// A query with its built frame and its reply buffer; all buffers are its own, from malloc.
class QCMgr {
  public:
    /// `replyDataLen` is the length of the reply's data field.
    QCMgr(const pckStruct& query, BuildQuery_t BUS_BuildQuery, uint16 replyDataLen);
    QCMgr(const QCMgr& other);
    ~QCMgr();
    /// Shallow, deliberately: both objects then share the buffers. Src and buildQueryLen are left alone.
    QCMgr& operator=(const QCMgr& other);
    /// Dest, commands, ParamLen and the address of the parameters; neither Src nor their contents.
    bool operator==(const QCMgr& other) const;
    bool operator!=(const QCMgr& other) const { return !(*this == other); }

    pckStruct QC;
    uint8* pckQuery;
    uint8* pckReply;
    uint16 buildQueryLen;
    uint16 expectedReplyLen;
    commStatus_t* pCommStatus;  // borrowed; null when the query concerns none
    QMutex mutexPck;            // held while the object is built, copied or destroyed
};

enum QueueType : int { AsyncQueue = 0, FixQueue = 1 };

struct QCDelayed_t {
    QCMgr* QCwrong;
    QueueType qType;
    uint32 key;  // of the fixed queue
};

constexpr int QCDELAYEDTIMEOUT = 3000;  // ms, pace of the restoring

/// Owns the queries of a link. Queues hold pointers into `Queries`, never others. Every operation takes mutexQ itself
/// unless told otherwise.
class QueuesMgr : public QThread {
    Q_OBJECT
  public:
    explicit QueuesMgr(QObject* parent);
    ~QueuesMgr() override;

    /// Empties the queues, not `Queries`. Takes no lock: only before the thread runs and after it has ended.
    void wipeQueues();
    /// Adds or replaces a fixed query; every registration restarts the walk. Always 0.
    int RegisterElem(QCMgr& q);
    /// 0, or -1 when it isn't registered or is the query in flight.
    int DeRegisterElem(QCMgr& q);
    /// Hands out the query at CurrFixQC, which must not stand at the end of a map that isn't empty. False where there
    /// is none or its frame is null.
    bool peekFixQC(QCMgr*& pFixQC);
    /// Appends. Always 0; duplicates are the caller's to refuse.
    int AddAsyncQC(QCMgr& q);
    /// Removes the elements of the same Dest and commands whose parameters DIFFER from those of `q`. 0 if any went.
    int RemoveAsyncQC(QCMgr& q);
    bool peekAsyncQC(QCMgr*& pAsyncQC);
    /// Drops the head. 0, or -1 on an empty queue.
    int headAsyncQC();
    /// Declared for a waiting room that this system doesn't fill.
    int AddDelayedQC(QueueType Type, uint32 key);
    bool peekDelayedQC(QCDelayed_t& delayed);
    bool isPresentInAsyncQC(const pckStruct& query);

  public slots:
    /// Restores one delayed query. Slot of the timer, also called by the module thread.
    virtual void manageDelayedQC();

  protected:
    /// Number of asynchronous queries.
    int sizeAsyncQC();
    // The caller holds mutexQ.
    bool isKeyPresent(uint32 key);
    bool isPresentInDelayedQC(const pckStruct& query, QueueType Type);
    int RemoveDelayedQC(const pckStruct& query, QueueType Type);

    static uint32 keyOf(const pckStruct& query);

    // The walk over FixQuery, a step of which is the link's to decide. Each takes mutexQ.
    /// CurrFixQC stands at the end; so it does in an empty map.
    bool fixRoundIsOver();
    /// Back to the first element. False when there is none.
    bool restartFixRound();
    /// To the next element; stays at the end.
    void advanceFixQC();

    using FixQueryMap = std::map<uint32, QCMgr*>;
    FixQueryMap FixQuery;
    FixQueryMap::iterator CurrFixQC;
    QQueue<QCMgr*> AsyncQC;
    QQueue<QCDelayed_t> DelayedQC;
    QMutex mutexQ;
    std::list<QCMgr> Queries;  // a list, since its elements must stay where they are
    QCMgr* currQC;             // handed out by the latest peek, the one in flight
    QTimer tmrRestore;

  private:
    // The caller holds mutexQ.
    void removeQuery(const QCMgr* query);
    void removeQueryAndUnheldEquals(const QCMgr* query);
    bool isHeld(const QCMgr* query) const;
    /// Makes `query` the one in flight, which ends the flight of the one before it. False where it can't be sent.
    bool handOut(QCMgr* query);

    // An element that was removed while in flight: the link's thread may still be using it outside the lock, so it
    // stays until that thread peeks again.
    std::list<QCMgr> retired;
};

#endif
