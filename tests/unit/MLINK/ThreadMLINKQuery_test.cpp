// One query on a thread of its own: to the own module, or through the bus to another cabinet's; commands that are
// waited for.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "MLINK/ThreadMLINK.h"
#include "unit/MLINK/ModuleLine.h"

namespace {

using namespace modline;
using support::LineCall;
using Names = std::vector<std::string>;

class SingleQuery : public OnTheLine {
  protected:
    explicit SingleQuery(const Plant::Options& options = withModule()) : OnTheLine(options) {
        for (const char letter : {'A', 'B', 'C', 'D'}) {
            setElemAlarm(plant.box(letter).desc.upsBox.subSystem.UPSShelter[0], faultAlarm);
        }
    }
    /// Runs it to its end; the reply's data are in `data`, the result in `status`.
    void shoot(uint8 boxId, pckStruct q, uint8 replyDataLen = 0) {
        MLINKMgr::singleQCMgr* const sQC = link().InsertSingleQC(boxId, q, replyDataLen, data.data(), &status);
        ASSERT_NE(sQC, nullptr);
        while (!link().WaitSingleQC(sQC, WAIT_MLINKSQC)) {
        }
    }
    static Bytes tunnel(uint8 dest, const Bytes& inner) { return bus::frame(0xEA, dest, "QT", inner); }
    /// As the asked card answers: its time stamp in front, then the module's frame.
    static Bytes tunnelReply(uint8 src, const Bytes& inner) {
        return bus::frame(src, 0xEA, "QT", bus::join({{0x65, 0xE1, 0xC6, 0x40}, inner}));
    }

    Bytes data = Bytes(400, 0xCC);
    int status = 99;
};

// ---------------------------------------------------------------------------------------------------------------

TEST_F(SingleQuery, HandsTheDataOfTheReplyOver) {
    module.answers["GE"] = text("ABCDEFGHIJKLMNOP");
    comm().isGood = false;
    shoot(0, query("GE", nullptr, '1', 'A'), 16);
    EXPECT_EQ(status, 0);
    Bytes expected = text("ABCDEFGHIJKLMNOP");
    expected.resize(400, 0xCC);
    EXPECT_EQ(data, expected);
    EXPECT_EQ(module.frames, std::vector<Bytes>{frame('A', '1', "GE")}) << "under the cabinet's letter";
    EXPECT_EQ(link().getCurrPck(), QString("currPck:\\02A1GE..."));
    EXPECT_EQ(link().getLastErr(), QString("LastErr:"));
    EXPECT_TRUE(in().channelIsFree());
    // Neither stored nor counted.
    EXPECT_FALSE(comm().isGood);
    EXPECT_EQ(plant.module('A').identification.partialInfo, 252);
}

TEST_F(SingleQuery, TellsWhatItDoes) {
    Bytes param = text("01");
    shoot(0, query("CP", &param, '1', 'A'));
    const std::string all = log.messages();
    EXPECT_EQ(all,
              "Start singleQC CP to 1\n"
              "Insert Single QC CP to 1\n"
              "data\n"
              "0x30 0x31 \n"
              "ret = 0 errnoMLink:0\n");
    std::string tellers;
    for (const support::LogEntry& entry : log.entries()) {
        tellers += entry.level == "-" ? "" : entry.function + " ";
    }
    EXPECT_EQ(tellers, "InsertSingleQC run run run ");
    log.clear();
    shoot(0, query("CD", nullptr, '1', 'A'));
    EXPECT_NE(log.messages().find("data\n\nret"), std::string::npos) << "an empty line without parameters";
}

TEST_F(SingleQuery, FewerBytesThanTheReplyHas) {
    module.answers["GE"] = text("ABCDEFGHIJKLMNOP");
    shoot(0, query("GE"), 3);
    EXPECT_EQ(Bytes(data.begin(), data.begin() + 4), (Bytes{'A', 'B', 'C', 0xCC}));
}

TEST_F(SingleQuery, MoreBytesThanTheReplyHas) {
    module.answers["GE"] = text("ABCDEFGHIJKLMNOP");
    shoot(0, query("GE"), 200);
    EXPECT_EQ(data[15], 'P');
    EXPECT_EQ(data[16], 0xCC) << "nothing from behind the data";
}

TEST_F(SingleQuery, FailureIsTheResultOfTheLine) {
    module.refuses["CP"] = '5';
    shoot(0, query("CP", nullptr, '1', 'A'));
    EXPECT_EQ(status, -5);
    EXPECT_TRUE(log.has("", "ret = -1 errnoMLink:5"));
    EXPECT_EQ(link().getLastErr(), QString("LastErr:\\02A1CP... @12:00:00"));
    module.refuses["CP"] = '3';
    shoot(0, query("CP"));
    EXPECT_EQ(status, -3);
    module.dead = true;
    shoot(0, query("CP"));
    EXPECT_EQ(status, -255);
    EXPECT_EQ(comm().errorPck, 0) << "counts nowhere";
    EXPECT_TRUE(in().channelIsFree());
}

TEST_F(SingleQuery, SendThatFailsBeforeAnythingReadsAsSuccess) {
    errnoMLink = 0;
    plant.moduleLine().fail(LineCall::Write, EIO);
    shoot(0, query("CP"));
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(log.has("", "ret = -1 errnoMLink:0"));
}

TEST_F(SingleQuery, AddressOfNoUnitIsRefused) {
    for (const int dest : {0x30, 0x39, 0, 0xFF}) {
        log.clear();
        status = 99;
        shoot(0, query("CP", nullptr, static_cast<uint8>(dest)));
        EXPECT_EQ(status, -1);
        EXPECT_TRUE(log.has("Err", "Indirizzo del modulo non corretto: " + std::to_string(dest) + "!"));
    }
    EXPECT_TRUE(module.asked.empty());
    shoot(0, query("CU", nullptr, '8'));
    EXPECT_EQ(module.asked, Names{"CU"});
}

TEST_F(SingleQuery, WaitsForTheLine) {
    in().mutexMLinkChannel->lock();
    pckStruct q = query("CP");
    MLINKMgr::singleQCMgr* const sQC = link().InsertSingleQC(0, q, 0, nullptr, &status);
    EXPECT_FALSE(link().WaitSingleQC(sQC, 20)) << "and says so";
    EXPECT_EQ(sQC->priority(), QThread::TimeCriticalPriority);
    EXPECT_TRUE(module.asked.empty());
    in().mutexMLinkChannel->unlock();
    while (!link().WaitSingleQC(sQC, WAIT_MLINKSQC)) {
    }
    EXPECT_EQ(status, 0);
}

TEST_F(SingleQuery, NoThreadCountsAsEnded) {
    EXPECT_TRUE(link().WaitSingleQC(nullptr, 50));
}

// ---------------------------------------------------------------------------------------------------------------

class TunnelledQuery : public SingleQuery {};

TEST_F(TunnelledQuery, TravelsInABusQuery) {
    const Bytes inner = frame('B', '1', "CP", text("00"));
    Bytes param = text("00");
    plant.line().expect(tunnel(0xEB, inner)).reply(tunnelReply(0xEB, frame('1', 'B', "CP")), 3 * MS);
    shoot(1, query("CP", &param, '1', 'B'));
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(plant.line().allDone());
    EXPECT_TRUE(module.asked.empty());
    EXPECT_EQ(log.errors(), 0U);
}

// By the time stamp of four bytes and the head of seven they would stand at 11; 18 is where they are taken from.
TEST_F(TunnelledQuery, DataAreTakenFromTheirOffset) {
    const Bytes inner = frame('1', 'B', "GE", text("ABCDEFGHIJKLMNOP"));
    plant.line().expect(tunnel(0xEB, frame('B', '1', "GE"))).reply(tunnelReply(0xEB, inner), 3 * MS);
    shoot(1, query("GE", nullptr, '1', 'B'), 16);
    EXPECT_EQ(status, 0);
    const Bytes outer = bus::join({{0x65, 0xE1, 0xC6, 0x40}, inner});
    Bytes expected(outer.begin() + 18, outer.end());
    expected.resize(16, 0);
    EXPECT_EQ(Bytes(data.begin(), data.begin() + 16), expected);
    EXPECT_EQ(data[16], 0xCC);
}

TEST_F(TunnelledQuery, EndsWellEvenIfNobodyAnswers) {
    shoot(1, query("CD", nullptr, '1', 'B'));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(log.occurrences("Errore nell'invio del comando CABP_QT all'armadio 0x42"), 5U);
    EXPECT_TRUE(log.has("Err", "Errore nell'invio del comando CABP_QT all'armadio 0x42"));
    EXPECT_EQ(tellersOf(log, "Errore nell'invio del comando CABP_QT all'armadio 0x42"), std::set<std::string>{"run"});
}

TEST_F(TunnelledQuery, StopsAtTheFirstSuccess) {
    const Bytes query_ = tunnel(0xED, frame('D', '1', "CD"));
    plant.line().expect(query_);
    plant.line().expect(query_);
    plant.line().expect(query_).reply(tunnelReply(0xED, frame('1', 'D', "CD")), 3 * MS);
    plant.line().strict();
    shoot(3, query("CD", nullptr, '1', 'D'));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(log.occurrences("Errore nell'invio del comando CABP_QT all'armadio 0x44"), 2U);
    EXPECT_TRUE(plant.line().allDone());
}

TEST_F(TunnelledQuery, OwnCabinetIsToldByItsIndex) {
    CABPAddr = 0xEB;
    shoot(1, query("CD", nullptr, '1', 'B'));
    CABPAddr = 0xEA;
    EXPECT_EQ(module.asked, Names{"CD"});
}

// ---------------------------------------------------------------------------------------------------------------

class WaitedCommand : public SingleQuery {
  protected:
    int send(const char* cmd, char box, uint8 dest = '1') {
        pckStruct q = query(cmd, nullptr, dest, static_cast<uint8>(box));
        return link().Send(q);
    }
    static constexpr const char* NOTREADY = "IL MODULO NON E` PRONTO A RICEVERE IL COMANDO!!!!";
};

TEST_F(WaitedCommand, ReachesTheModule) {
    EXPECT_EQ(send("CD", 'A'), 0);
    EXPECT_EQ(module.frames, std::vector<Bytes>{frame('A', '1', "CD")});
    EXPECT_EQ(log.errors(), 0U);
}

TEST_F(WaitedCommand, FailureIsTold) {
    module.refuses["CD"] = '6';
    EXPECT_EQ(send("CD", 'A'), -6);
    EXPECT_TRUE(log.has("Err", "Errore nell'invio del comando CD al modulo 1@A"));
    EXPECT_EQ(module.asked.size(), 1U);
}

TEST_F(WaitedCommand, LostModuleIsNotAsked) {
    setElemAlarm(plant.box('A').desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    EXPECT_EQ(send("CD", 'A'), -1);
    EXPECT_EQ(log.messages(), std::string(NOTREADY) + "\n");
    EXPECT_TRUE(log.has("Err", NOTREADY));
    EXPECT_TRUE(module.asked.empty());
    setElemAlarm(plant.box('A').desc.upsBox.subSystem.UPSShelter[0], noneAlarm);
    EXPECT_EQ(send("CD", 'A'), 0) << "only that state counts";
}

TEST_F(WaitedCommand, OtherModulesHaveNoShelterAndAreNeverReady) {
    for (uint8 dest = '2'; dest <= '7'; ++dest) {
        log.clear();
        EXPECT_EQ(send("CD", 'A', dest), -1) << dest;
        EXPECT_TRUE(log.has("Err", NOTREADY));
    }
    EXPECT_EQ(send("CD", 'A', '0'), -1);
    EXPECT_EQ(send("CD", 'A', '9'), -1);
    EXPECT_TRUE(module.asked.empty());
}

TEST_F(WaitedCommand, BypassUnitIsNotTested) {
    setElemAlarm(plant.box('A').desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    EXPECT_EQ(send("CU", 'A', '8'), 0);
    EXPECT_EQ(module.asked, Names{"CU"});
}

TEST_F(WaitedCommand, CabinetThatIsNoneIsNeverReady) {
    for (const int box : {0x40, 0x45, 0x20, 0xFF}) {
        EXPECT_EQ(send("CD", static_cast<char>(box)), -1);
        EXPECT_EQ(send("CU", static_cast<char>(box), '8'), -1);
    }
    plant.data('B').pVN = nullptr;
    EXPECT_EQ(send("CD", 'B'), -1);
    EXPECT_EQ(log.occurrences(NOTREADY), 9U);
    EXPECT_TRUE(plant.line().sent().empty());
}

TEST_F(WaitedCommand, ToAnotherCabinetAlwaysEndsWell) {
    EXPECT_EQ(send("CD", 'C'), 0);
    EXPECT_EQ(log.occurrences("Errore nell'invio del comando CABP_QT all'armadio 0x43"), 5U);
    EXPECT_FALSE(log.contains("Errore nell'invio del comando CD"));
}

}  // namespace
