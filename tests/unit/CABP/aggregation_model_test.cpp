// Thousands of passes over records that change at random, compared with a slow model: the root node, the cabinets'
// nodes, the counts, the log and the status file. A failure tells the seed; UGW_SEED=... runs it again.
#include <cstdlib>
#include <ostream>
#include <random>
#include <string>

#include "unit/CABP/Aggregation.h"
#include "unit/CABP/SlowModel.h"

namespace {

using namespace aggregation;

constexpr int ROUNDS = 2000;

struct PlantCase {
    std::uint8_t own;
    const char* boxes;
};
std::ostream& operator<<(std::ostream& out, const PlantCase& plant) {
    return out << "own" << std::hex << static_cast<int>(plant.own) << "_" << plant.boxes;
}

std::uint32_t newSeed() {
    const char* const given = std::getenv("UGW_SEED");
    return given != nullptr ? static_cast<std::uint32_t>(std::strtoul(given, nullptr, 0)) : std::random_device()();
}

class RandomPasses : public AggregationTest, public testing::WithParamInterface<PlantCase> {
  protected:
    RandomPasses() : AggregationTest(GetParam().own, GetParam().boxes), seed(newSeed()), dice(seed) {}

    std::uint32_t any(std::uint32_t below) { return std::uniform_int_distribution<std::uint32_t>(0, below - 1)(dice); }
    bool oneIn(std::uint32_t n) { return any(n) == 0; }
    uint8 anyByte() {
        static const uint8 edges[] = {0x00, 0x01, 0x7F, 0x80, 0xFF};
        return oneIn(3) ? edges[any(5)] : static_cast<uint8>(any(256));
    }
    template <typename Record>
    void changeByte(Record& record) {
        reinterpret_cast<uint8*>(&record)[any(sizeof(record))] = anyByte();
    }
    /// A 16-bit measure near one of the bounds, or anything.
    void changeMeasure(dataObject_t& ups) {
        static const uint16 edges[] = {0,   1,   19,  20,  79,     80,     99,     100,
                                       101, 138, 139, 230, 0x7FFF, 0x8000, 0xFFFE, 0xFFFF};
        const uint16 value = oneIn(4) ? static_cast<uint16>(any(0x10000)) : edges[any(16)];
        switch (any(16)) {
            case 0:
                ups.Vin[any(3)] = value;
                break;
            case 1:
                ups.Vbyp[any(3)] = value;
                break;
            case 2:
                ups.Vout[any(3)] = value;
                break;
            case 3:
                ups.Uin[any(3)] = value;
                break;
            case 4:
                ups.Ubyp[any(3)] = value;
                break;
            case 5:
                ups.Uout[any(3)] = value;
                break;
            case 6:
                ups.Frq_in = value;
                break;
            case 7:
                ups.Frq_byp = value;
                break;
            case 8:
                ups.Frq_out = value;
                break;
            case 9:
                ups.VbatRS = value;
                break;
            case 10:
                ups.Vbatp = value;
                break;
            case 11:
                ups.Vbatn = value;
                break;
            case 12:
                ups.Aut_time = value;
                break;
            default:
                ups.Load[any(3)] = static_cast<int16>(value);
                break;
        }
    }
    void changeStates(descUpsBox_t& box) {
        const uint8 bit = static_cast<uint8>(1u << any(8));
        switch (any(9)) {
            case 0:
                box.Ups.alarm.byte ^= bit;
                break;
            case 1:
                box.Ups.status.byte ^= bit;
                break;
            case 2:
                box.Ups.extStatus.byte ^= bit;
                break;
            case 3:
                box.Ups.switchStatus.byte ^= bit;
                break;
            case 4:
                box.Ups.PMStatus.bytes[any(2)] ^= bit;
                break;
            case 5:
                box.boxStatus.byte ^= bit;
                break;
            case 6:
                box.externalSwitchStatus.byte ^= bit;
                break;
            case 7:
                box.MCUMUStatus.byte ^= bit;
                break;
            default:
                box.subSystem.UPSShelter[0].desc = anyByte();
                break;
        }
    }
    void changeTimestamp(descUpsBox_t& box) {
        static const int ages[] = {-100, -1, 0, 1, 29, 30, 31, 719, 720, 721, 100000};
        box.Ups.timestamp = oneIn(4) ? 0 : now() - ages[any(11)];
    }
    void changeReach(upsBoxQueriesData_t& data) {
        switch (any(4)) {
            case 0:
                data.MCUcommStatus.active = !oneIn(4);
                break;
            case 1:
                data.MCUcommStatus.isGood = !oneIn(3);
                break;
            case 2:
                data.MCUcommStatus.errorPck = static_cast<int32>(any(7));
                break;
            default:
                data.extendedBoardBox.Status.Config_Update = isSlave() && oneIn(4);
                break;
        }
    }
    bool isSlave() { return plant.in().state == Slave; }

    void changeCabinet(char letter) {
        virtualNode_t& node = plant.box(letter);
        switch (any(16)) {
            case 0:
            case 1:
            case 2:
            case 3:
            case 4:
                changeStates(node.desc.upsBox);
                break;
            case 5:
            case 6:
            case 7:
                changeMeasure(node.desc.upsBox.Ups);
                break;
            case 8:
            case 9:
                changeByte(node.desc.upsBox);
                break;
            case 10:
                changeReach(plant.data(letter));
                break;
            case 11:
                changeTimestamp(node.desc.upsBox);
                break;
            case 12:
                changeByte(node.nominal);
                break;
            case 13:
                for (int i = 0; i < 40; ++i) {
                    changeByte(node.desc.upsBox);
                }
                break;
            default:
                makeWell(letter);
                plant.comm(letter).active = true;
                plant.comm(letter).isGood = true;
                break;
        }
    }
    /// What only shows between cabinets: the same thing at all of them, at some, at none.
    void changeScene() {
        static const uint16 batteries[] = {99, 100, 101, 270};
        static const int ages[] = {0, 29, 30, 31, 720, 721};
        const std::uint32_t scene = any(7);
        const std::uint32_t chance = 1 + any(4);
        const bool isPlant = oneIn(2);
        for (const char letter : letters) {
            descUpsBox_t& box = plant.box(letter).desc.upsBox;
            const uint8 is = isPlant || any(4) < chance ? 1 : 0;
            switch (scene) {
                case 0:
                    box.Ups.status.Battery_Working = is;
                    box.Ups.alarm.Battery_Low = oneIn(2);
                    break;
                case 1:
                    box.Ups.status.Output_Powered = is;
                    break;
                case 2:
                    box.Ups.alarm.Lock = is;
                    box.Ups.alarm.Bypass_Bad = oneIn(2);
                    break;
                case 3:
                    box.externalSwitchStatus.SWIN = is;
                    box.externalSwitchStatus.SWBYP = oneIn(2);
                    box.externalSwitchStatus.SWBATT_EXT = oneIn(2);
                    break;
                case 4:
                    box.Ups.status.SWMB = is;
                    box.Ups.status.SWOUT = oneIn(2);
                    break;
                case 5:
                    box.Ups.Vbatp = batteries[any(4)];
                    break;
                default:
                    box.Ups.timestamp = now() - ages[any(6)];
                    plant.comm(letter).errorPck = static_cast<int32>(any(2));
                    break;
            }
        }
    }
    void changePlant() {
        PlantCfg& cfg = plant.cfg();
        static const uint32 powers[] = {0, 1, 2, 3, 15000, 30000, 60000, 0xFFFFFFFF};
        switch (any(8)) {
            case 0:
                cfg.WModule = powers[any(8)];
                break;
            case 1:
                cfg.redundantUPS = static_cast<uint8>(any(4));
                break;
            case 2:
                plant.sys().numUPS = static_cast<uint8>(any(5));
                break;
            case 3:
                cfg.externBattCapacity = static_cast<uint16>(any(2));
                break;
            case 4:
                cfg.word7 = static_cast<uint16>(any(0x10000));
                break;
            case 5:
                cfg.word28 = static_cast<uint16>(any(0x10000));
                break;
            case 6:
                changeByte(root());
                break;  // another process
            default:
                cfg.Ups[any(4)].modulePresent[0] = oneIn(2);
                break;
        }
    }
    void changeModule() {
        virtualNode_t& module = plant.module(static_cast<char>('A' + GetParam().own - 0xEA));
        oneIn(2) ? changeByte(module.identification) : changeByte(module.nominal);
    }

    /// Everything that the next pass reads.
    void toModel() {
        for (int id = 0; id < 4; ++id) {
            const upsBoxQueriesData_t& data = plant.bus().upsBox[id];
            slowmodel::Cabinet& cabinet = model.cabinets[id];
            cabinet.active = data.MCUcommStatus.active;
            cabinet.isGood = data.MCUcommStatus.isGood;
            cabinet.errorPck = data.MCUcommStatus.errorPck;
            cabinet.configUpdate = data.extendedBoardBox.Status.Config_Update;
            cabinet.hasNode = data.pVN != nullptr;
            if (cabinet.hasNode) {
                cabinet.node = *data.pVN;
            }
        }
        const virtualNode_t& module = plant.module(static_cast<char>('A' + GetParam().own - 0xEA));
        model.hasModule = true;
        model.moduleIdentification = module.identification;
        model.moduleBatteryAh = module.nominal.BatteryAh;
        model.cfg = plant.cfg();
        model.numUPS = plant.sys().numUPS;
        model.root = plant.root();
    }

    void moveClock() {
        static const std::int64_t steps[] = {INTERVAL,   INTERVAL,   500 * MS,   500 * MS,    SECOND,
                                             2 * SECOND, 3 * SECOND, 4 * SECOND, 11 * SECOND, 40 * SECOND};
        VirtualClock::advance(steps[any(10)]);
        if (oneIn(200)) {
            VirtualClock::setWall(VirtualClock::wall() / SECOND + static_cast<std::int64_t>(any(2000)) - 1000);
        }
    }

    std::uint32_t seed;
    std::mt19937 dice;
    slowmodel::Model model;
};

TEST_P(RandomPasses, LeaveWhatTheSlowModelLeaves) {
    SCOPED_TRACE("UGW_SEED=" + std::to_string(seed));
    LogCapture log;
    for (int round = 0; round < ROUNDS && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        moveClock();
        for (const char letter : letters) {
            if (!oneIn(8)) {
                ups(letter).timestamp = now();
            }
            if (oneIn(4)) {
                changeCabinet(letter);
            }
        }
        if (oneIn(4)) {
            changeScene();
        }
        if (oneIn(40)) {
            changePlant();
        }
        if (oneIn(40)) {
            changeModule();
        }
        toModel();
        log.clear();
        plant.bus().AggregateBox();
        model.pass(now());

        EXPECT_TRUE(sameBytes(model.root, plant.root()));
        for (const char letter : letters) {
            EXPECT_TRUE(sameBytes(model.cabinets[letter - 'A'].node, plant.box(letter))) << letter;
        }
        EXPECT_EQ(static_cast<uint8>(model.moduleNotOnLoad), plant.sys().moduleNotOnLoad);
        EXPECT_EQ(static_cast<uint8>(model.moduleUsed), plant.sys().moduleUsed);
        EXPECT_EQ(model.log, log.messages());
        EXPECT_EQ(model.json, json());
    }
}
INSTANTIATE_TEST_SUITE_P(Plants, RandomPasses,
                         testing::Values(PlantCase{0xEA, "ABCD"}, PlantCase{0xEB, "ABCD"}, PlantCase{0xEA, "A"},
                                         PlantCase{0xED, "ACD"}, PlantCase{0xEA, "AB"}));

}  // namespace
