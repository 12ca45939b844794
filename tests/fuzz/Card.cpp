#include "fuzz/Card.h"

#include <unistd.h>

#include <cstring>

#include "fuzz/Frames.h"
#include "support/Replaced.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

namespace fuzz {
namespace {

using support::VirtualClock;
namespace replaced = support::replaced;

constexpr std::int64_t SECOND = 1000000;
constexpr std::size_t LINKS = 49;      // offset of a node's index and links
constexpr std::size_t LINKS_SIZE = 5;  // bytes

template <typename... Calls>
void forget(Calls&... calls) {
    (calls.forget(), ...);
}

template <typename Record>
Bytes imageOf(const Record& record) {
    const auto* const first = reinterpret_cast<const std::uint8_t*>(&record);
    return Bytes(first, first + sizeof(record));
}

template <typename Queue>
void requireSound(const Queue& link, const char* name) {
    std::set<const QCMgr*> owned;
    std::size_t sum = 0;
    for (const QCMgr& query : link.Queries) {
        owned.insert(&query);
        FUZZ_REQUIRE(query.pckQuery != nullptr && query.pckReply != nullptr,
                     std::string(name) + ": a query without its buffers");
        FUZZ_REQUIRE(query.QC.ParamLen == 0 || query.QC.pParam != nullptr,
                     std::string(name) + ": a query without its parameters");
        // Seen by the address sanitizer.
        for (std::size_t i = 0; i < query.buildQueryLen; ++i) {
            sum += query.pckQuery[i];
        }
        for (std::size_t i = 0; i < query.expectedReplyLen; ++i) {
            sum += query.pckReply[i];
        }
    }
    FUZZ_REQUIRE(sum != 1, "no frame begins so");
    std::set<const QCMgr*> queued;
    for (const auto& fixed : link.FixQuery) {
        FUZZ_REQUIRE(owned.count(fixed.second) == 1, std::string(name) + ": a fixed query that isn't owned");
        FUZZ_REQUIRE(queued.insert(fixed.second).second, std::string(name) + ": a query stands twice");
    }
    for (const QCMgr* const query : link.AsyncQC) {
        FUZZ_REQUIRE(owned.count(query) == 1, std::string(name) + ": a queued query that isn't owned");
        FUZZ_REQUIRE(queued.insert(query).second, std::string(name) + ": a query stands twice");
    }
    FUZZ_REQUIRE(queued.size() == owned.size(), std::string(name) + ": a query that stands in no queue");
    FUZZ_REQUIRE(link.DelayedQC.isEmpty(), std::string(name) + ": something waits that nothing put there");
}

void clearReplies(std::list<QCMgr>& queries) {
    for (QCMgr& query : queries) {
        std::memset(query.pckReply, 0, query.expectedReplyLen);
    }
}

}  // namespace

Card::Card(support::Plant& thePlant, bool isMaster)
    : plant(thePlant),
      isMaster_(isMaster),
      tree_(plant.shm().only().size),
      boxes_(imageOf(plant.bus().upsBox)),
      modules_(imageOf(plant.link().ModulesData)),
      sameBuild_(plant.sys().cntForSameBuild),
      notOnLoad_(plant.sys().moduleNotOnLoad) {
    tree_ = tree();
    support::Transcript::withWaits(false);
}

void Card::reset(std::int64_t limitSeconds) {
    VirtualClock::reset();
    VirtualClock::setLimit(limitSeconds * SECOND);
    support::Transcript::clear();
    forget(replaced::system(), replaced::adjtime(), replaced::kill(), replaced::waitpid(), replaced::shmget(),
           replaced::shmat(), replaced::shmdt(), replaced::shmctl(), replaced::fopen(), replaced::rename());
    plant.line().forget();
    plant.line().onWrite(nullptr);
    CABP_Init();
    CABP_CheckBreak();
    if (plant.inLink().FixQuery.empty()) {
        fail(__FILE__, __LINE__, "nothing is polled any more");
    }

    std::memcpy(plant.shm().only().bytes.get(), tree_.data(), tree_.size());
    std::memcpy(plant.bus().upsBox, boxes_.data(), boxes_.size());
    std::memcpy(plant.link().ModulesData, modules_.data(), modules_.size());
    dropAsync();
    clearReplies(plant.in().Queries);
    clearReplies(plant.inLink().Queries);

    LastMaster = GROUPMASTER;
    errnoCABP = 0;
    cntBreakDetect = 0;
    errnoMLink = 0;
    plant.sys().cntForSameBuild = sameBuild_;
    plant.sys().moduleNotOnLoad = static_cast<uint8>(notOnLoad_);
    plant.sys().moduleUsed = 0;

    support::BusThread& bus = plant.in();
    plant.bus().setState(isMaster_ ? Master : Slave);
    bus.CurrFixQC = bus.FixQuery.begin();
    bus.lastTime = {0, 0};
    bus.forcedOnBypass = -1;
    bus.guiForcedOnBypass = 0;
    bus.unknownDevPresent = false;
    bus.epochWhenClockChanged = 0;
    bus.lastAdj = 1;
    bus.prevdelta = 0;
    plant.bus().EPOLatched = false;
    plant.bus().EPOReset = false;
    std::memset(&plant.bus().CNData, 0, sizeof(plant.bus().CNData));
    plant.bus().iteration = CABPMgr::COUNTDOWN_ITERATION;

    support::ModuleThread& link = plant.inLink();
    link.state = MasterMLink;
    link.iteration = MLINKMgr::COUNTDOWN_ITERATION;
    link.CurrFixQC = link.FixQuery.begin();
    link.lastTime = {0, 0};
    link.stopped = false;
    if (ftruncate(STDERR_FILENO, 0) != 0) {
        fail(__FILE__, __LINE__, "the log can't be emptied");
    }
}

std::size_t Card::boxNode(int cabinet) const {
    const virtualNode_t* const node = plant.bus().upsBox[cabinet].pVN;
    return node == nullptr ? nodeCount() : static_cast<std::size_t>(node - plant.tree().virtualUPS);
}

std::size_t Card::moduleNode(int cabinet) const {
    const virtualNode_t* const node = plant.link().ModulesData[cabinet][0].pVN;
    return node == nullptr ? nodeCount() : static_cast<std::size_t>(node - plant.tree().virtualUPS);
}

Bytes Card::tree() const {
    const std::uint8_t* const first = plant.shm().only().bytes.get();
    return Bytes(first, first + tree_.size());
}

void Card::requireOnlyNodes(const Bytes& before, const std::set<std::size_t>& allowed, const char* who) const {
    const std::uint8_t* const now = plant.shm().only().bytes.get();
    for (std::size_t i = 0; i < before.size(); ++i) {
        const std::size_t node = i / sizeof(virtualNode_t);
        if (before[i] != now[i] && allowed.count(node) == 0) {
            fail(__FILE__, __LINE__,
                 std::string(who) + " wrote into node " + std::to_string(node) + " at " +
                     std::to_string(i % sizeof(virtualNode_t)));
        }
    }
}

void Card::requireSoundTree() const {
    const std::uint8_t* const now = plant.shm().only().bytes.get();
    for (std::size_t node = 0; node < nodeCount(); ++node) {
        const std::size_t at = node * sizeof(virtualNode_t);
        FUZZ_REQUIRE(now[at] == tree_[at] && std::memcmp(now + at + LINKS, &tree_[at + LINKS], LINKS_SIZE) == 0,
                     "the links of node " + std::to_string(node) + " have changed");
    }
}

void Card::requireSoundQueues() const {
    requireSound(plant.in(), "bus");
    requireSound(plant.inLink(), "module link");
}

void Card::requireFreeLocks() const {
    support::BusThread& bus = plant.in();
    for (myMutex* const mutex :
         {bus.mutexState, bus.mutexCABPData, bus.mutexClk, bus.mutexForcedonBypass, plant.inLink().mutexState,
          plant.inLink().mutexMLinkChannel, plant.inLink().mutexMLinkData, plant.sys().mutexQCSeq}) {
        FUZZ_REQUIRE(mutex->tryLock(), "a lock is still held");
        mutex->unlock();
    }
    FUZZ_REQUIRE(plant.in().channelIsFree() != plant.in().channelHeldByRole, "the right to transmit is lost");
    FUZZ_REQUIRE(bus.mutexQ.tryLock(), "the queues' lock is still held");
    bus.mutexQ.unlock();
}

void Card::requireSoundBusFrames() const {
    for (const Bytes& frame : plant.line().writes()) {
        FUZZ_REQUIRE(isBusFrame(frame), "sent what is no frame: " + support::hex(frame.data(), frame.size()));
        FUZZ_REQUIRE(frame[1] == CABPAddr, "sent in another card's name");
    }
}

void Card::dropAsync() {
    while (!plant.in().AsyncQC.isEmpty()) {
        plant.bus().headAsyncQC();
    }
    while (!plant.inLink().AsyncQC.isEmpty()) {
        plant.link().headAsyncQC();
    }
    // Those in flight that were taken off their queue stay until the next is asked for.
    QCMgr* none = nullptr;
    plant.bus().peekAsyncQC(none);
    plant.link().peekAsyncQC(none);
}

}  // namespace fuzz
