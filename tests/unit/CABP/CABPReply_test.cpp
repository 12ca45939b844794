// What this card answers, byte by byte, and what it leaves unanswered.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "CABP/CABP.h"
#include "CABP/ThreadCABP.h"
#include "support/LogCapture.h"
#include "support/Plant.h"
#include "support/VirtualClock.h"
#include "unit/CABP/Bus.h"
#include "unit/CABP/Images.h"

namespace {

using images::Bytes;
using images::image;
using images::joined;
using images::overlaid;
using images::pattern;
using support::LogCapture;
using support::Plant;
using support::VirtualClock;

// Offsets in an identification.
constexpr std::size_t SN_AUX = 63;
constexpr std::size_t SWVER_AUX = 80;

/// A card of the plant, its tree and its cabinets registered.
class Card {
  public:
    explicit Card(uint8 own = 0xEA, const std::string& boxes = "ABCD") : plant(own, boxes), id_(own - 0xEA) {
        plant.registerAll();
        LastMaster = 0xE0;
        VirtualClock::setWall(VirtualClock::START_OF_WALL);
    }
    upsBoxQueriesData_t& box() { return plant.bus().upsBox[id_]; }
    virtualNode_t& node() { return *box().pVN; }
    /// The result; what was sent stands in `sent`.
    int ask(uint8 src, const std::string& cmd, const Bytes& data = {}) {
        Bytes query = bus::frame(src, CABPAddr, cmd.c_str(), data);
        pckStruct qcs;
        CABP_ExtractQuery(qcs, query.data());
        plant.line().clearSent();
        const int ret = CABP_ManageReply(qcs);
        sent = plant.line().sent();
        return ret;
    }
    template <typename Record>
    static void fill(Record& record, uint8 seed) {
        const Bytes bytes = pattern(sizeof(record), seed);
        std::memcpy(static_cast<void*>(&record), bytes.data(), bytes.size());
    }

    Plant plant;
    Bytes sent;

  private:
    int id_;
};

std::string failed(const std::string& cmd, const std::string& src) {
    return "FALLITO Risposta " + cmd + " inviato alla scheda " + src + "\n";
}

// ---------------------------------------------------------------------------------------------------------------
// Data replies

const uint8 OWN[] = {0xEA, 0xEB, 0xEC, 0xED};
// The own address is among them: a node that asks itself.
const uint8 ASKERS[] = {0xEA, 0xEB, 0xEC, 0xED, 0xE0, 0xEF, 0x0A, 0x55};

TEST(DataReply, NominalDataGoToAllNodesWhoeverAsked) {
    for (const uint8 own : OWN) {
        Card card(own);
        card.fill(card.node().nominal, 0x41);
        for (const uint8 asker : ASKERS) {
            LogCapture log;
            EXPECT_EQ(card.ask(asker, "BN"), 0);
            EXPECT_EQ(card.sent, bus::frame(own, 0xFF, "BN", pattern(20, 0x41)));
            ASSERT_EQ(card.sent.size(), 30u);
            EXPECT_EQ(images::firstOf(card.sent, 7), (Bytes{0x02, own, 0xFF, 'B', 'N', 0x00, 0x14}));
            EXPECT_EQ(log.text(), "");
        }
    }
}

TEST(DataReply, StateGoesToAllNodesWhoeverAsked) {
    for (const uint8 own : OWN) {
        Card card(own);
        card.fill(card.node().desc.upsBox, 0x42);
        card.box().extendedBoardBox.idu = 0x5D;
        for (const uint8 asker : ASKERS) {
            LogCapture log;
            EXPECT_EQ(card.ask(asker, "BS"), 0);
            EXPECT_EQ(card.sent, bus::frame(own, 0xFF, "BS", joined(pattern(267, 0x42), {0x5D})));
            ASSERT_EQ(card.sent.size(), 278u);
            EXPECT_EQ(images::firstOf(card.sent, 7), (Bytes{0x02, own, 0xFF, 'B', 'S', 0x01, 0x0C}));
            EXPECT_EQ(log.text(), "");
        }
    }
}

TEST(DataReply, IdentificationGoesToAllNodesWhoeverAsked) {
    for (const uint8 own : OWN) {
        Card card(own);
        card.fill(card.node().identification, 0x43);
        card.box().extendedBoardBox.inf.timestamp = 1;
        for (const uint8 asker : ASKERS) {
            LogCapture log;
            EXPECT_EQ(card.ask(asker, "BI"), 0);
            EXPECT_EQ(card.sent, bus::frame(own, 0xFF, "BI", pattern(98, 0x43)));
            ASSERT_EQ(card.sent.size(), 108u);
            EXPECT_EQ(images::firstOf(card.sent, 7), (Bytes{0x02, own, 0xFF, 'B', 'I', 0x00, 0x62}));
            EXPECT_EQ(log.text(), "");
        }
    }
}

TEST(StateReply, EveryFieldStandsAtItsPlace) {
    Card card;
    descUpsBox_t& box = card.node().desc.upsBox;
    box.timestamp = 0x11121314;
    box.Ups.timestamp = 0x21222324;
    box.Ups.Cent_kwh = 0x31323334;
    box.Batteries.timestamp = 0x41424344;
    box.Batteries.barsNegV = 0x5152;
    box.subSystem.UPSShelter[0].desc = 0x61;
    box.boxStatus.byte = 0x62;
    box.externalSwitchStatus.byte = 0x63;
    box.mcuStatus.byte = 0x64;
    box.MCUMUStatus.byte = 0x65;
    card.box().extendedBoardBox.idu = 0x66;
    ASSERT_EQ(card.ask(0xEB, "BS"), 0);
    const Bytes data(card.sent.begin() + 7, card.sent.end() - 3);
    const auto at = [&data](std::size_t offset, std::size_t n) {
        return Bytes(data.begin() + static_cast<long>(offset), data.begin() + static_cast<long>(offset + n));
    };
    ASSERT_EQ(data.size(), 268u);
    EXPECT_EQ(at(0, 4), (Bytes{0x14, 0x13, 0x12, 0x11}));
    EXPECT_EQ(at(4, 4), (Bytes{0x24, 0x23, 0x22, 0x21}));
    EXPECT_EQ(at(160, 4), (Bytes{0x34, 0x33, 0x32, 0x31}));
    EXPECT_EQ(at(164, 4), (Bytes{0x44, 0x43, 0x42, 0x41}));
    EXPECT_EQ(at(260, 8), (Bytes{0x52, 0x51, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66}));
}

TEST(NominalReply, EveryFieldStandsAtItsPlace) {
    Card card;
    card.node().nominal = {0x01020304, 0x11121314, 0x21222324, 0x3132, 0x4142, 0x5152, 0x6162};
    ASSERT_EQ(card.ask(0xEB, "BN"), 0);
    EXPECT_EQ(card.sent, bus::frame(0xEA, 0xFF, "BN", {0x04, 0x03, 0x02, 0x01, 0x14, 0x13, 0x12, 0x11, 0x24, 0x23,
                                                       0x22, 0x21, 0x32, 0x31, 0x42, 0x41, 0x52, 0x51, 0x62, 0x61}));
}

TEST(StateReply, LastByteIsNeverTheFiller) {
    Card card;
    for (int idu = 0; idu <= 0xFF; ++idu) {
        card.box().extendedBoardBox.idu = static_cast<uint8>(idu);
        ASSERT_EQ(card.ask(0xEB, "BS"), 0);
        ASSERT_EQ(card.sent[7 + 267], idu);
    }
}

TEST(Reply, WhoeverAsksIsMasterNow) {
    Card card;
    for (const char* cmd : {"BN", "BS", "BI", "CH", "CU", "SC", "SI", "UC", "CN", "QX", "VV"}) {
        LogCapture log;
        LastMaster = 0xE0;
        card.ask(0xEC, cmd);
        EXPECT_EQ(LastMaster, 0xEC) << cmd;
        card.ask(0x0C, cmd);
        EXPECT_EQ(LastMaster, 0xEC) << cmd << ": an SK board never is";
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Identification

Bytes created(char parallel, const Bytes& snAux, const Bytes& swVerAux) {
    const Bytes blank16 = images::text(std::string(16, ' ') + '\0');
    const Bytes blank12 = images::text(std::string(12, ' ') + '\0');
    Bytes all = images::littleEndian32(VirtualClock::START_OF_WALL);
    all = joined(all, blank16);
    all = joined(all, images::text(std::string("QPR UPS BOX     ") + '\0'));
    all = joined(all, blank12);
    all = joined(all, {'4', 0, '1', '1', '1', '0', '2', '0', static_cast<uint8>(parallel), '0', '0', '0'});
    all = joined(all, snAux);
    all = joined(all, swVerAux);
    return joined(all, {'0', '0', '0', '0', 0});
}

Bytes padded(const std::string& start, std::size_t size) {
    // The end of the copied text, and behind it the blanks that stood there.
    std::string all = start + '\0';
    all.resize(size - 1, ' ');
    return images::text(all + '\0');
}

TEST(IdentificationReply, RecordIsCreatedOnceAndSentWithoutBoardStrings) {
    Card card;
    LogCapture log;
    EXPECT_EQ(card.ask(0xEB, "BI"), 0);
    const Bytes record = created('1', padded("", 17), padded("", 13));
    ASSERT_EQ(record.size(), 98u);
    EXPECT_EQ(image(card.node().identification), record) << "the record keeps its blanks";
    EXPECT_EQ(card.sent, bus::frame(0xEA, 0xFF, "BI", overlaid(record, SN_AUX, Bytes(30, 0))));
    EXPECT_EQ(log.messages(),
              "CREO DATI identification myMCUid\n"
              "RISPOSTA BI PARZIALE, non sono disponibili dati GI\n");
    EXPECT_EQ(log.count(""), 2u);

    // A second request, later: the same record with the same time.
    log.clear();
    const Bytes first = card.sent;
    VirtualClock::advance(5000000);
    EXPECT_EQ(card.ask(0xEC, "BI"), 0);
    EXPECT_EQ(card.sent, first);
    EXPECT_EQ(log.messages(), "RISPOSTA BI PARZIALE, non sono disponibili dati GI\n");
}

TEST(IdentificationReply, RecordIsCreatedWithTheBoardsStrings) {
    Card card;
    information_t& inf = card.box().extendedBoardBox.inf;
    inf.timestamp = 1;
    std::strcpy(inf.ro.SerialNumber, "SK0042");
    std::strcpy(inf.ro.FWVersion, "FW1.07");
    LogCapture log;
    EXPECT_EQ(card.ask(0xEB, "BI"), 0);
    const Bytes record = created('1', padded("SK0042", 17), padded("FW1.07", 13));
    EXPECT_EQ(image(card.node().identification), record);
    EXPECT_EQ(card.sent, bus::frame(0xEA, 0xFF, "BI", record));
    EXPECT_EQ(log.messages(), "CREO DATI identification myMCUid\n");
}

TEST(IdentificationReply, BoardStringsOfFullLengthEndWithinTheirFields) {
    Card card;
    information_t& inf = card.box().extendedBoardBox.inf;
    inf.timestamp = 1;
    // No terminator, as no GI frame leaves them: the copies are bounded all the same.
    std::memset(inf.ro.SerialNumber, 'S', sizeof(inf.ro.SerialNumber));
    std::memset(inf.ro.FWVersion, 'F', sizeof(inf.ro.FWVersion));
    EXPECT_EQ(card.ask(0xEB, "BI"), 0);
    EXPECT_EQ(image(card.node().identification),
              created('1', images::text(std::string(16, 'S') + '\0'), images::text(std::string(12, 'F') + '\0')));
}

TEST(IdentificationReply, BoardDataThatCameLaterAreInTheNextReply) {
    Card card;
    ASSERT_EQ(card.ask(0xEB, "BI"), 0);
    Bytes gi = bus::frame(
        0x0A, 0xFF, "GI",
        images::text(std::string("SERIAL0123456789") + std::string(16, 'u') + "FW0123456789" + std::string(20, 'w')));
    CABP_ManageData(1700000000, gi.data());
    LogCapture log;
    ASSERT_EQ(card.ask(0xEB, "BI"), 0);
    const Bytes record = created('1', images::text(std::string("SERIAL0123456789") + '\0'),
                                 images::text(std::string("FW0123456789") + '\0'));
    EXPECT_EQ(card.sent, bus::frame(0xEA, 0xFF, "BI", record));
    EXPECT_EQ(log.text(), "");
}

TEST(IdentificationReply, FilledRecordIsNotCreatedAnew) {
    Card card;
    card.fill(card.node().identification, 0x21);
    LogCapture log;
    EXPECT_EQ(card.ask(0xEB, "BI"), 0);
    EXPECT_EQ(image(card.node().identification), pattern(98, 0x21));
    EXPECT_EQ(card.sent, bus::frame(0xEA, 0xFF, "BI", overlaid(pattern(98, 0x21), SN_AUX, Bytes(30, 0))));
    EXPECT_EQ(log.messages(), "RISPOSTA BI PARZIALE, non sono disponibili dati GI\n");
}

TEST(IdentificationReply, BlankedFieldsAreTheBoardsTwoStrings) {
    EXPECT_EQ(offsetof(identification_t, SN_AUX), SN_AUX);
    EXPECT_EQ(offsetof(identification_t, SWVer_AUX), SWVER_AUX);
    EXPECT_EQ(SN_AUX + 30, SWVER_AUX + 13) << "30 bytes in a row";
}

TEST(IdentificationReply, TellsWhetherThePlantHasSeveralCabinets) {
    const std::pair<const char*, char> plants[] = {{"A", '0'}, {"AB", '1'}, {"AD", '1'}, {"ABC", '1'}, {"ABCD", '1'}};
    for (const auto& [boxes, parallelInfo] : plants) {
        Card card(0xEA, boxes);
        LogCapture log;
        ASSERT_EQ(card.ask(0xEA, "BI"), 0);
        EXPECT_EQ(card.sent[7 + 59], parallelInfo) << boxes;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Acknowledges

TEST(Acknowledge, GoesToTheAsker) {
    Card card(0xEB);
    for (const std::string cmd : {"CH", "CU", "SC", "SI", "UC"}) {
        for (const uint8 src : ASKERS) {
            LogCapture log;
            EXPECT_EQ(card.ask(src, cmd), 0);
            EXPECT_EQ(card.sent, bus::frame(0xEB, src, cmd.c_str(), {0x06}));
            EXPECT_EQ(card.sent.size(), 11u);
            EXPECT_FALSE(log.contains("FALLITO"));
        }
    }
}

TEST(UpdateRequest, MarksTheCabinetThatAsked) {
    for (int id = 0; id < MAXUPSBOX; ++id) {
        Card card;
        LogCapture log;
        EXPECT_EQ(card.ask(static_cast<uint8>(0xEA + id), "UC"), 0);
        EXPECT_EQ(log.messages(), std::string("Richiesta aggiornamento da MCU:") + static_cast<char>('A' + id) + "\n");
        EXPECT_EQ(log.count(""), 1u);
        for (int each = 0; each < MAXUPSBOX; ++each) {
            EXPECT_EQ(card.plant.bus().upsBox[each].remoteUpdaterequest, each == id) << id << " " << each;
        }
    }
}

TEST(UpdateRequest, FromAnAddressThatIsNoCabinetsMarksNothingButIsAcknowledged) {
    for (int src = 0; src <= 0xFF; ++src) {
        if (src >= 0xEA && src <= 0xED) {
            continue;
        }
        Card card;
        const Bytes before = image(card.plant.bus().upsBox);
        const Bytes cnBefore = image(card.plant.bus().CNData);
        LogCapture log;
        EXPECT_EQ(card.ask(static_cast<uint8>(src), "UC"), 0);
        EXPECT_EQ(card.sent, bus::frame(0xEA, static_cast<uint8>(src), "UC", {0x06}));
        EXPECT_EQ(image(card.plant.bus().upsBox), before);
        EXPECT_EQ(image(card.plant.bus().CNData), cnBefore);
        EXPECT_EQ(log.errors(), 1u);
    }
}

TEST(UpdateRequest, LetterOfAnyAskerIsLogged) {
    Card card;
    LogCapture log;
    card.ask(0xEE, "UC");
    card.ask(0xE0, "UC");
    EXPECT_TRUE(log.has("", "Richiesta aggiornamento da MCU:E"));
    EXPECT_TRUE(log.has("", "Richiesta aggiornamento da MCU:7"));
}

// ---------------------------------------------------------------------------------------------------------------
// Refusals

TEST(Refused, EveryCommandOutsideTheTable) {
    const std::set<std::string> answered = {"BN", "BS", "BI", "CH", "CU", "QT", "SC", "SI", "UC"};
    const std::string mains = "BCFGOQSTU";
    const std::string subs = std::string("\0\x06\x15", 3) + "1ABCDEFGHIJKLMNOPQRSTUVWXYZn\x80\xFF";
    Card card(0xEB);
    for (int main = 0; main <= 0xFF; ++main) {
        for (const char sub : subs) {
            const std::string cmd = {static_cast<char>(main), sub};
            if (answered.count(cmd) != 0 || cmd == "CN") {
                continue;
            }
            LogCapture log;
            ASSERT_EQ(card.ask(0xEA, cmd), -1);
            ASSERT_EQ(card.sent, Bytes()) << "not even a NAK";
            const std::string why = mains.find(cmd[0]) != std::string::npos
                                        ? std::string("SubCmd ") + sub + " non supportato per il MainCmd " + cmd[0]
                                        : std::string("MainCmd ") + cmd[0] + " non supportato";
            ASSERT_EQ(log.messages(), why + "\n" + failed(cmd, "0xEA")) << main << " " << sub;
            if (main != '\n') {
                ASSERT_EQ(log.errors(), 2u);
            }
        }
    }
}

TEST(Refused, MasterHandoverHasNoReply) {
    Card card;
    LogCapture log;
    EXPECT_EQ(card.ask(0xEB, "CN", Bytes(93, 0)), -1);
    EXPECT_EQ(card.sent, Bytes());
    EXPECT_EQ(log.messages(),
              "Il comando CN non prevede risposta... grave errore logico!!\n"
              "SubCmd N non supportato per il MainCmd C\n" +
                  failed("CN", "0xEB"));
    EXPECT_EQ(log.errors(), 3u);
}

TEST(Refused, BoardCommandsGetNoReply) {
    Card card;
    for (const char* cmd : {"GI", "GS", "GE", "BE", "TB"}) {
        LogCapture log;
        EXPECT_EQ(card.ask(0xEB, cmd), -1) << cmd;
        EXPECT_EQ(card.sent, Bytes()) << cmd;
    }
}

// ---------------------------------------------------------------------------------------------------------------
// What can't be answered or sent

TEST(WithoutOwnCabinet, DataQueriesCannotBeAnswered) {
    // An unknown own address, a card whose cabinet isn't of the plant, addresses that no card has.
    const std::pair<int, const char*> cards[] = {{0xE0, "ABCD"}, {0xEB, "A"}, {0xEE, "ABCD"}, {0xFF, "ABCD"}};
    for (const auto& [own, boxes] : cards) {
        Plant plant(static_cast<uint8>(own), boxes);
        plant.registerAll();
        for (const char* cmd : {"BN", "BS", "BI"}) {
            pckStruct qcs;
            qcs.Src = 0xEC;
            qcs.Dest = CABPAddr;
            qcs.MainCmd = static_cast<uint8>(cmd[0]);
            qcs.SubCmd = static_cast<uint8>(cmd[1]);
            plant.line().clearSent();
            LogCapture log;
            EXPECT_EQ(CABP_ManageReply(qcs), -1) << own << cmd;
            EXPECT_EQ(log.messages(), failed(cmd, "0xEC"));
            EXPECT_EQ(log.errors(), 1u);
            EXPECT_EQ(plant.line().sent(), Bytes());
        }
    }
}

TEST(Unsent, DataReplyLeavesTheRecordsAsTheyAre) {
    Card card;
    card.fill(card.node().nominal, 0x41);
    const Bytes before = image(card.node());
    card.plant.line().fail(support::LineCall::Write, EIO, 1, 1000);
    LogCapture log;
    EXPECT_EQ(card.ask(0xEB, "BN"), -1);
    EXPECT_TRUE(log.has("Err", "FALLITO Risposta BN inviato alla scheda 0xEB"));
    EXPECT_EQ(image(card.node()), before);
}

TEST(Unsent, EveryReplySaysSo) {
    Card card;
    card.plant.line().fail(support::LineCall::Write, EIO, 1, 1000);
    for (const std::string cmd : {"BN", "BS", "BI", "CH", "CU", "SC", "SI", "UC"}) {
        LogCapture log;
        EXPECT_EQ(card.ask(0xEB, cmd), -1);
        EXPECT_TRUE(log.has("Err", "FALLITO Risposta " + cmd + " inviato alla scheda 0xEB")) << log.text();
        EXPECT_EQ(card.sent, Bytes());
    }
    EXPECT_TRUE(card.plant.bus().upsBox[1].remoteUpdaterequest);
    EXPECT_EQ(card.node().identification.timestamp, VirtualClock::START_OF_WALL) << "created before it was sent";
}

TEST(Unsent, LaterTryOfTheSameReplyCounts) {
    Card card;
    card.plant.line().fail(support::LineCall::Write, EIO, 1, 3);
    LogCapture log;
    EXPECT_EQ(card.ask(0xEB, "BN"), 0);
    EXPECT_EQ(card.sent, bus::frame(0xEA, 0xFF, "BN", image(card.node().nominal)));
    EXPECT_FALSE(log.contains("FALLITO"));
}

}  // namespace
