// Registration of modules, their queries, and what others read and write of a module's data.
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "MLINK/MLINKInternal.h"
#include "MLINK/ThreadMLINK.h"
#include "unit/MLINK/ModuleLine.h"

namespace {

using namespace modline;
using Names = std::vector<std::string>;

std::string textOf(const char* field, std::size_t size) {
    return {field, size};
}

/// The card A, its plant registered on the bus side alone: modules are registered by the tests.
class ModuleRegistration : public testing::Test {
  protected:
    explicit ModuleRegistration(const Plant::Options& options = withModule()) : plant(options) {
        plant.registerAll();
        const LogCapture quiet;
        link().wipeQueues();
        std::memset(link().ModulesData, 0, sizeof(link().ModulesData));
        log.clear();
    }
    MLINKMgr& link() { return plant.link(); }
    support::ModuleThread& in() { return plant.inLink(); }
    /// Makes each byte of the module's records differ from its start value.
    void spoil(char letter) {
        virtualNode_t& node = plant.module(letter);
        std::memset(&node.identification, 0x5A, sizeof(node.identification));
        std::memset(&node.nominal, 0x5A, sizeof(node.nominal));
        std::memset(&node.desc, 0x5A, sizeof(node.desc));
    }
    std::string said() {
        std::string all;
        for (const support::LogEntry& entry : log.entries()) {
            all += entry.level + " " + entry.function + ": " + entry.message + "\n";
        }
        return all;
    }

    Plant plant;
    LogCapture log;
};

TEST_F(ModuleRegistration, TakesItsPlaceAndItsQueries) {
    link().ModulesData[0][0].commStatus.errorPck = 5;
    link().ModulesData[0][0].commStatus.isGood = true;
    EXPECT_EQ(link().RegisterModule(0xEA, '1'), 0);
    EXPECT_EQ(said(),
              " RegisterModule: string ricerca SA.BA.M1\n"
              " RegisterModule: string ricerca SA.BA.M1\n"
              " RegisterElem: Add Query GI to 0x31\n"
              " RegisterElem: Add Query GN to 0x31\n"
              " RegisterElem: Add Query RS to 0x31\n"
              " RegisterElem: Add Query RE to 0x31\n"
              " RegisterElem: Add Query RK to 0x31\n"
              " RegisterElem: Add Query RC to 0x31\n"
              " RegisterElem: Add Query DS to 0x31\n"
              " RegisterElem: Add Query DE to 0x31\n");
    commStatus_t expected = {};
    expected.active = true;
    EXPECT_EQ(std::memcmp(&plant.slot('A').commStatus, &expected, sizeof(expected)), 0);
    EXPECT_EQ(plant.slot('A').pVN, &plant.module('A'));
    EXPECT_EQ(in().fixed(), (Names{"DE", "DS", "GI", "GN", "RC", "RE", "RK", "RS"}));
    for (const auto& entry : in().FixQuery) {
        EXPECT_EQ(entry.second->QC.Src, 0x20);
        EXPECT_EQ(entry.second->QC.Dest, '1');
        EXPECT_EQ(entry.second->QC.ParamLen, 0);
        EXPECT_EQ(entry.second->pCommStatus, &plant.slot('A').commStatus);
    }
    EXPECT_TRUE(in().dataAreFree());
}

TEST_F(ModuleRegistration, ResetsItsNode) {
    spoil('A');
    link().RegisterModule(0xEA, '1');
    const virtualNode_t& node = plant.module('A');
    const identification_t& id = node.identification;
    const std::string blanks16 = std::string(16, ' ') + '\0';
    const std::string blanks12 = std::string(12, ' ') + '\0';
    EXPECT_EQ(id.timestamp, 0);
    EXPECT_EQ(textOf(id.SN, 17), blanks16);
    EXPECT_EQ(textOf(id.SN_AUX, 17), blanks16);
    EXPECT_EQ(textOf(id.Model, 17), blanks16);
    EXPECT_EQ(textOf(id.SWVer, 13), blanks12);
    EXPECT_EQ(textOf(id.SWVer_AUX, 13), blanks12);
    EXPECT_EQ(textOf(reinterpret_cast<const char*>(&id.IO_Cfg), 7), "4322102");
    EXPECT_EQ(id.NBattForBench, 0);
    EXPECT_EQ(id.ParallelInfo, '1');
    EXPECT_EQ(textOf(reinterpret_cast<const char*>(id.tbdGI), 3), "xxx");
    EXPECT_EQ(textOf(reinterpret_cast<const char*>(id.tbdGE), 4), "xxxx");
    EXPECT_EQ(id.partialInfo, 252);
    const nominal_t zero = {};
    EXPECT_EQ(std::memcmp(&node.nominal, &zero, sizeof(zero)), 0);

    const dataObject_t& data = node.desc.module.data;
    EXPECT_EQ(data.timestamp, 0);
    EXPECT_EQ(data.alarm.byte, 0);
    EXPECT_EQ(data.status.byte, 0);
    EXPECT_EQ(data.extStatus.byte, 0);
    EXPECT_EQ(data.switchStatus.byte, 0x08 | (0x5A & 0xC0)) << "the battery is there; two bits stay as they were";
    EXPECT_EQ(data.PMStatus.bytes[0], 0x5A & ~0x03);
    EXPECT_EQ(data.PMStatus.bytes[1], (0x5A | 0x20));
    EXPECT_EQ(data.Load[0], 2048) << "bit 3 of a cabinet's switches";
    EXPECT_EQ(data.Load[1], 0);
    EXPECT_EQ(data.Load[2], 0);
    EXPECT_EQ(data.maxLoad, 0);
    EXPECT_EQ(data.Frq_in, 500);
    EXPECT_EQ(data.Frq_byp, 500);
    EXPECT_EQ(data.Frq_out, 500);
    EXPECT_EQ(data.Temp0, 25);
    for (const uint8 temp : {data.Temp1, data.Temp2, data.Temp3, data.Temp4, data.Temp5, data.Temp6}) {
        EXPECT_EQ(temp, 0x5A);
    }
    EXPECT_EQ(data.Cent_kwh, 0x5A5A5A5A);
    // Everything else of the measures is 0.
    dataObject_t rest = data;
    rest.switchStatus.byte = 0;
    std::memset(rest.PMStatus.bytes, 0, 2);
    rest.Load[0] = 0;
    rest.Frq_in = rest.Frq_byp = rest.Frq_out = 0;
    rest.Temp0 = rest.Temp1 = rest.Temp2 = rest.Temp3 = rest.Temp4 = rest.Temp5 = rest.Temp6 = 0;
    rest.Cent_kwh = 0;
    const dataObject_t zeroData = {};
    EXPECT_EQ(std::memcmp(&rest, &zeroData, sizeof(rest)), 0);
    const statusCoding_t zeroDetail = {};
    EXPECT_EQ(std::memcmp(&node.desc.module.statusDetail, &zeroDetail, sizeof(zeroDetail)), 0);
}

#if defined(__SANITIZE_THREAD__)
constexpr bool SEES_UNLOCKED_READS = true;
#else
constexpr bool SEES_UNLOCKED_READS = false;
#endif

// Other processes read the records at any instant, and a lost module's are reset each second.
TEST_F(ModuleRegistration, ResetIsNeverSeenHalfMade) {
    if (SEES_UNLOCKED_READS) {
        GTEST_SKIP() << "reads without a lock on purpose";
    }
    virtualNode_t& node = plant.module('A');
    spoil('A');
    mlink::ResetModuleNode(node);
    const std::vector<std::pair<const char*, const void*>> fields = {
        {"SN", node.identification.SN},
        {"SWVer_AUX", node.identification.SWVer_AUX},
        {"IO_Cfg", &node.identification.IO_Cfg},
        {"partialInfo", &node.identification.partialInfo},
        {"switchStatus", &node.desc.module.data.switchStatus},
        {"PMStatus", &node.desc.module.data.PMStatus.bytes[1]},
        {"Frq_out", reinterpret_cast<const uint8*>(&node.desc.module) + offsetof(dataObject_t, Frq_out)},
        {"Temp0", &node.desc.module.data.Temp0},
        {"Temp6", &node.desc.module.data.Temp6},
    };
    const auto read = [](const void* byte) -> uint8 { return *static_cast<const volatile uint8*>(byte); };
    std::vector<uint8> steady;
    for (const auto& field : fields) {
        steady.push_back(read(field.second));
    }
    std::atomic<bool> isOver{false};
    std::vector<std::size_t> odd(fields.size());
    std::thread reader([&] {
        while (!isOver) {
            for (std::size_t i = 0; i < fields.size(); ++i) {
                odd[i] += read(fields[i].second) != steady[i] ? 1 : 0;
            }
        }
    });
    for (int i = 0; i < 200000; ++i) {
        mlink::ResetModuleNode(node);
    }
    isOver = true;
    reader.join();
    for (std::size_t i = 0; i < fields.size(); ++i) {
        EXPECT_EQ(odd[i], 0U) << fields[i].first;
    }
}

TEST_F(ModuleRegistration, OfAnotherCabinetAddsNoQuery) {
    spoil('C');
    EXPECT_EQ(link().RegisterModule(0xEC, '1'), 0);
    EXPECT_TRUE(plant.slot('C').commStatus.active);
    EXPECT_EQ(plant.slot('C').pVN, &plant.module('C'));
    EXPECT_EQ(plant.module('C').desc.module.data.Load[0], 2048);
    EXPECT_TRUE(in().FixQuery.empty());
}

TEST_F(ModuleRegistration, BadIndicesChangeNothing) {
    const struct {
        uint8 MCUAdd;
        uint8 modAdd;
        const char* message;
    } cases[] = {{0xEA, '8', "Indice del modulo non corretto!"},   {0xEA, '0', "Indice del modulo non corretto!"},
                 {0xE9, '8', "Indice del modulo non corretto!"},   {0xE9, '1', "Indice dell'armadio non corretto!"},
                 {0xEE, '1', "Indice dell'armadio non corretto!"}, {0x00, '7', "Indice dell'armadio non corretto!"}};
    const auto before = std::string(reinterpret_cast<const char*>(link().ModulesData), sizeof(link().ModulesData));
    for (const auto& c : cases) {
        log.clear();
        EXPECT_EQ(link().RegisterModule(c.MCUAdd, c.modAdd), -1);
        EXPECT_EQ(link().DeRegisterModule(c.MCUAdd, c.modAdd), -1);
        EXPECT_EQ(said(),
                  std::string("Err RegisterModule: ") + c.message + "\nErr DeRegisterModule: " + c.message + "\n");
    }
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(link().ModulesData), sizeof(link().ModulesData)), before);
    EXPECT_TRUE(in().FixQuery.empty());
}

// A cabinet has one module here: the second of D would be that of a fifth cabinet.
TEST_F(ModuleRegistration, ModuleWithoutASlotIsRefused) {
    CABPAddr = 0xED;
    EXPECT_EQ(link().RegisterModule(0xED, '2'), -1);
    EXPECT_EQ(link().DeRegisterModule(0xED, '7'), -1);
    CABPAddr = 0xEA;
    EXPECT_EQ(said(),
              "Err RegisterModule: MODULO NON INIZIALIZZATO!!! MCUAdd:0xED UPSAdd:2\n"
              "Err DeRegisterModule: MODULO NON INIZIALIZZATO!!! MCUAdd:0xED UPSAdd:7\n");
    for (const char letter : {'A', 'B', 'C', 'D'}) {
        EXPECT_FALSE(plant.slot(letter).commStatus.active);
    }
    EXPECT_TRUE(in().FixQuery.empty());
}

TEST(ModuleRegistrationOfOthers, PollsTheOwnModuleAndSearchesUnderTheOwnLetter) {
    Plant plant(withModule(0xEC));
    const LogCapture log;
    plant.sys().RegisterAll();
    EXPECT_EQ(log.occurrences("string ricerca SC.BC.M1"), 2U);
    EXPECT_EQ(log.occurrences("string ricerca SC.BA.M1"), 2U);
    EXPECT_EQ(plant.slot('C').pVN, &plant.module('C'));
    EXPECT_EQ(plant.slot('A').pVN, &plant.module('A'));
    ASSERT_EQ(plant.inLink().FixQuery.size(), 8U);
    for (const auto& entry : plant.inLink().FixQuery) {
        EXPECT_EQ(entry.second->pCommStatus, &plant.slot('C').commStatus);
    }
}

TEST_F(ModuleRegistration, IsUndoneButForItsQueries) {
    link().RegisterModule(0xEA, '1');
    plant.slot('A').commStatus.isGood = true;
    plant.slot('A').commStatus.errorCnt = 7;
    log.clear();
    EXPECT_EQ(link().DeRegisterModule(0xEA, '1'), -1) << "its RX was never registered";
    EXPECT_EQ(said(),
              " DeRegisterElem: Remove Query RX to 0x31\nErr DeRegisterElem: L'elemento NON e'mai stato registrato\n");
    EXPECT_FALSE(plant.slot('A').commStatus.active);
    EXPECT_EQ(plant.slot('A').pVN, nullptr);
    EXPECT_TRUE(plant.slot('A').commStatus.isGood) << "other fields stay";
    EXPECT_EQ(plant.slot('A').commStatus.errorCnt, 7);
    EXPECT_EQ(in().FixQuery.size(), 8U);
    EXPECT_TRUE(in().dataAreFree());
    link().RegisterModule(0xEB, '1');
    log.clear();
    EXPECT_EQ(link().DeRegisterModule(0xEB, '1'), 0);
    EXPECT_EQ(said(), "");
    EXPECT_EQ(plant.slot('B').pVN, nullptr);
}

TEST(ModuleRegistrationWithoutATree, IsSurvived) {
    Plant::Options options = withModule();
    options.hasTree = false;
    Plant plant(options);
    plant.registerAll();
    EXPECT_TRUE(plant.slot('A').commStatus.active);
    EXPECT_EQ(plant.slot('A').pVN, nullptr);
    EXPECT_EQ(plant.inLink().FixQuery.size(), 8U);
    identification_t id = {};
    id.partialInfo = 77;
    const LogCapture log;
    plant.link().GetIdentification(0xEA, '1', &id);
    EXPECT_EQ(id.partialInfo, 77);
    EXPECT_TRUE(log.has("Err", "MODULO NON INIZIALIZZATO!!! MCUAdd:0xEA UPSAdd:1"));
}

// ---------------------------------------------------------------------------------------------------------------

TEST_F(ModuleRegistration, FixedQueriesAreCheckedByTheirDestination) {
    for (const uint8 dest : {uint8('0'), uint8('9'), uint8(0x00), uint8(0xFF)}) {
        log.clear();
        EXPECT_EQ(link().RegisterElem(query("RS", nullptr, dest)), -1);
        EXPECT_EQ(link().DeRegisterElem(query("RS", nullptr, dest)), -1);
        EXPECT_EQ(said(),
                  "Err RegisterElem: Indice della scheda non corretto!\n"
                  "Err DeRegisterElem: Indice del modulo non corretto!\n");
    }
    EXPECT_TRUE(in().FixQuery.empty());
    log.clear();
    EXPECT_EQ(link().RegisterElem(query("RS", nullptr, '8')), 0);
    EXPECT_EQ(in().FixQuery.begin()->second->pCommStatus, nullptr);
    EXPECT_EQ(link().DeRegisterElem(query("RS", nullptr, '8')), 0);
    EXPECT_EQ(said(), " RegisterElem: Add Query RS to 0x38\n DeRegisterElem: Remove Query RS to 0x38\n");
    EXPECT_TRUE(in().FixQuery.empty());
}

TEST_F(ModuleRegistration, AsynchronousQueriesAreCheckedByTheirDestination) {
    for (const int dest : {0x30, 0x39, 0, 255}) {
        log.clear();
        const std::string line = "Indirizzo del modulo non corretto: " + std::to_string(dest) + "!";
        EXPECT_EQ(link().AddAsyncQC(query("CP", nullptr, static_cast<uint8>(dest)), true), -1);
        EXPECT_EQ(link().RemoveAsyncQC(query("CP", nullptr, static_cast<uint8>(dest))), -1);
        EXPECT_EQ(said(), "Err AddAsyncQC: " + line + "\nErr RemoveAsyncQC: " + line + "\n");
    }
    EXPECT_TRUE(in().AsyncQC.isEmpty());
}

TEST_F(ModuleRegistration, IdenticalCommandIsAbsorbed) {
    Bytes a = text("0001");
    Bytes b = text("0002");
    EXPECT_EQ(link().AddAsyncQC(query("CS", &a), true), 0);
    EXPECT_EQ(link().AddAsyncQC(query("CS", &a), true), 0);
    EXPECT_EQ(link().AddAsyncQC(query("CS", &b), false), 0);
    EXPECT_EQ(in().AsyncQC.size(), 2);
    EXPECT_EQ(said(), " AddAsyncQC: Add AsyncQuery CS to 0x31\n") << "the second says nothing, the third neither";
    EXPECT_EQ(in().AsyncQC.head()->pCommStatus, &plant.slot('A').commStatus);
    a[3] = '9';
    EXPECT_EQ(std::memcmp(in().AsyncQC.head()->QC.pParam, "0001", 4), 0) << "a copy of its own";
}

TEST_F(ModuleRegistration, BypassUnitHasNoState) {
    EXPECT_EQ(link().AddAsyncQC(query("CU", nullptr, '8'), false), 0);
    EXPECT_EQ(in().AsyncQC.head()->pCommStatus, nullptr);
}

// From cabinet A the modules '2' to '4' would be those of B to D, the rest none.
TEST_F(ModuleRegistration, StatesBehindTheLastSlotAreNone) {
    link().AddAsyncQC(query("CP", nullptr, '4'), false);
    EXPECT_EQ(in().AsyncQC.last()->pCommStatus, &plant.slot('D').commStatus);
    for (const uint8 dest : {uint8('5'), uint8('7')}) {
        link().AddAsyncQC(query("CP", nullptr, dest), false);
        EXPECT_EQ(in().AsyncQC.last()->pCommStatus, nullptr);
        link().RegisterElem(query("RS", nullptr, dest));
        EXPECT_EQ(in().FixQuery.rbegin()->second->pCommStatus, nullptr);
    }
    EXPECT_EQ(link().slotOf(3, '1'), &plant.slot('D'));
    for (const int boxId : {-1, 4, 246, 255}) {
        EXPECT_EQ(link().slotOf(boxId, '1'), nullptr) << boxId;
    }
    EXPECT_EQ(link().slotOf(3, '2'), nullptr);
    EXPECT_EQ(link().slotOf(1, '0'), nullptr);
    EXPECT_EQ(link().slotOf(0, 0xFF), nullptr);
}

TEST_F(ModuleRegistration, CommandWithOtherParametersIsRemoved) {
    Bytes a = text("0001");
    Bytes b = text("0002");
    link().AddAsyncQC(query("CS", &a), false);
    EXPECT_EQ(link().RemoveAsyncQC(query("CS", &a)), -1);
    EXPECT_EQ(in().AsyncQC.size(), 1);
    EXPECT_EQ(link().RemoveAsyncQC(query("CS", &b)), 0);
    EXPECT_TRUE(in().AsyncQC.isEmpty());
    EXPECT_EQ(said(), " RemoveAsyncQC: Remove AsyncQuery CS to 0x31\n RemoveAsyncQC: Remove AsyncQuery CS to 0x31\n");
}

// ---------------------------------------------------------------------------------------------------------------

class ModuleData : public ModuleRegistration {
  protected:
    ModuleData() {
        for (const uint8 address : {0xEA, 0xEB}) {
            link().RegisterModule(static_cast<uint8>(address), '1');
        }
        log.clear();
        std::memset(&id, 0x11, sizeof(id));
        std::memset(&nominal, 0x11, sizeof(nominal));
        std::memset(&data, 0x11, sizeof(data));
    }
    /// Inner frames that wait to go out on the bus, with their destination.
    std::vector<std::pair<int, Bytes>> tunnelled() {
        std::vector<std::pair<int, Bytes>> all;
        for (const QCMgr* element : plant.in().AsyncQC) {
            EXPECT_EQ(element->QC.MainCmd, 'Q');
            EXPECT_EQ(element->QC.SubCmd, 'T');
            EXPECT_EQ(element->QC.Src, 0xEA);
            const auto* const param = static_cast<const uint8*>(element->QC.pParam);
            all.emplace_back(element->QC.Dest, Bytes(param, param + element->QC.ParamLen));
        }
        return all;
    }
    identification_t id;
    nominal_t nominal;
    descModule_t data;
};

TEST_F(ModuleData, IncompleteIdentificationIsAskedForOnce) {
    link().GetIdentification(0xEA, '1', &id);
    EXPECT_EQ(std::memcmp(&id, &plant.module('A').identification, sizeof(id)), 0) << "the defaults";
    EXPECT_EQ(id.partialInfo, 252);
    EXPECT_EQ(in().async(), (Names{"GI", "GE"}));
    EXPECT_EQ(in().AsyncQC.head()->QC.Src, 0x20);
    EXPECT_EQ(said(), " AddAsyncQC: Add AsyncQuery GI to 0x31\n AddAsyncQC: Add AsyncQuery GE to 0x31\n");
    link().GetIdentification(0xEA, '1', &id);
    EXPECT_EQ(in().async(), (Names{"GI", "GE"}));
}

TEST_F(ModuleData, CompleteIdentificationIsCopied) {
    virtualNode_t& node = plant.module('A');
    node.identification.timestamp = 1;
    std::memcpy(node.identification.SN, "SN-OF-THE-MODULE", 16);
    link().GetIdentification(0xEA, '1', &id);
    EXPECT_EQ(std::memcmp(&id, &node.identification, sizeof(id)), 0);
    EXPECT_TRUE(in().AsyncQC.isEmpty());
    link().GetIdentification(0xEA, '1', &node.identification);  // onto itself
    EXPECT_EQ(std::memcmp(&id, &node.identification, sizeof(id)), 0);
    EXPECT_TRUE(in().dataAreFree());
}

TEST_F(ModuleData, IdentificationOfAnotherCabinetIsAskedThroughTheBus) {
    link().GetIdentification(0xEB, '1', &id);
    EXPECT_EQ(id.partialInfo, 252);
    EXPECT_TRUE(in().AsyncQC.isEmpty());
    const std::vector<std::pair<int, Bytes>> expected = {{0xEB, frame('B', '1', "GI")}, {0xEB, frame('B', '1', "GE")}};
    EXPECT_EQ(tunnelled(), expected);
}

TEST_F(ModuleData, WrongAddressesOfIdentification) {
    const identification_t before = id;
    for (const uint8 address : {uint8('0'), uint8('9'), uint8(0)}) {
        log.clear();
        link().GetIdentification(0xEA, address, &id);
        EXPECT_EQ(said(), "Err GetIdentification: GRAVE ERRORE DI INDIRIZZAMENTO\n");
    }
    log.clear();
    link().GetIdentification(0xEC, '1', &id);
    link().GetIdentification(0xE9, '1', &id);
    link().GetIdentification(0xED, '2', &id);
    EXPECT_EQ(said(),
              "Err GetIdentification: MODULO NON INIZIALIZZATO!!! MCUAdd:0xEC UPSAdd:1\n"
              "Err GetIdentification: MODULO NON INIZIALIZZATO!!! MCUAdd:0xE9 UPSAdd:1\n"
              "Err GetIdentification: MODULO NON INIZIALIZZATO!!! MCUAdd:0xED UPSAdd:2\n");
    EXPECT_EQ(std::memcmp(&id, &before, sizeof(id)), 0);
    EXPECT_TRUE(in().AsyncQC.isEmpty());
    EXPECT_TRUE(plant.in().AsyncQC.isEmpty());
}

TEST_F(ModuleData, IdentificationOfTheBypassUnitEndsTheProcess) {
    EXPECT_DEATH(link().GetIdentification(0xEA, '8', &id), "GRAVE ERRORE DI INDIRIZZAMENTO");
}

TEST_F(ModuleData, NominalBeforeTheFirstReplyIsZero) {
    link().GetNominal(0xEA, '1', &nominal);
    const nominal_t zero = {};
    EXPECT_EQ(std::memcmp(&nominal, &zero, sizeof(zero)), 0);
    EXPECT_EQ(in().async(), Names{"GN"});
    plant.module('A').nominal.timestamp = 5;
    plant.module('A').nominal.VA = 20000;
    link().GetNominal(0xEA, '1', &nominal);
    EXPECT_EQ(nominal.VA, 20000U);
    EXPECT_EQ(nominal.timestamp, 5);
    EXPECT_EQ(in().async(), Names{"GN"});
    link().GetNominal(0xEB, '1', &nominal);
    EXPECT_EQ(nominal.VA, 0U);
    const std::vector<std::pair<int, Bytes>> expected = {{0xEB, frame('B', '1', "GN")}};
    EXPECT_EQ(tunnelled(), expected);
    EXPECT_TRUE(in().dataAreFree());
}

TEST_F(ModuleData, WrongAddressesOfNominal) {
    const nominal_t before = nominal;
    link().GetNominal(0xEA, '8', &nominal);
    link().GetNominal(0xEA, '0', &nominal);
    link().GetNominal(0xEC, '1', &nominal);
    EXPECT_EQ(said(),
              "Err GetNominal: GRAVE ERRORE DI INDIRIZZAMENTO\n"
              "Err GetNominal: GRAVE ERRORE DI INDIRIZZAMENTO\n"
              "Err GetNominal: MODULO NON INIZIALIZZATO!!! MCUAdd:0xEC UPSAdd:1\n");
    EXPECT_EQ(std::memcmp(&nominal, &before, sizeof(nominal)), 0);
}

TEST_F(ModuleData, FreshMeasuresAreCopied) {
    descModule_t& record = plant.module('A').desc.module;
    record.data.timestamp = static_cast<time32_t>(VirtualClock::START_OF_WALL - 30);
    record.data.Vin[1] = 231;
    record.statusDetail.states[3] = 1;
    link().GetUPSStatus(0xEA, '1', &data);
    EXPECT_EQ(std::memcmp(&data, &record, sizeof(data)), 0);
    link().GetUPSStatus(0xEA, '1', &record);  // onto itself
    EXPECT_EQ(std::memcmp(&data, &record, sizeof(data)), 0);
    EXPECT_TRUE(in().AsyncQC.isEmpty()) << "the own module is polled";
    EXPECT_TRUE(plant.in().AsyncQC.isEmpty());
}

TEST_F(ModuleData, OldMeasuresGiveTheDefaults) {
    descModule_t& record = plant.module('A').desc.module;
    for (const std::int64_t stamp : {VirtualClock::START_OF_WALL - 31, std::int64_t{0}}) {
        record.data.timestamp = static_cast<time32_t>(stamp);
        record.data.Vin[1] = 231;
        std::memset(&data, 0x11, sizeof(data));
        link().GetUPSStatus(0xEA, '1', &data);
        EXPECT_EQ(data.data.timestamp, 0);
        EXPECT_EQ(data.data.Vin[1], 0);
        EXPECT_EQ(data.data.Frq_in, 500);
        EXPECT_EQ(data.data.Temp1, 0x11) << "untouched";
        EXPECT_EQ(data.statusDetail.states[0], 0x11);
    }
}

TEST_F(ModuleData, MeasuresOfAnotherCabinetAreAskedForOnceTheyAge) {
    descModule_t& record = plant.module('B').desc.module;
    record.data.timestamp = static_cast<time32_t>(VirtualClock::START_OF_WALL - 2);
    link().GetUPSStatus(0xEB, '1', &data);
    EXPECT_TRUE(plant.in().AsyncQC.isEmpty());
    record.data.timestamp = static_cast<time32_t>(VirtualClock::START_OF_WALL - 3);
    link().GetUPSStatus(0xEB, '1', &data);
    const std::vector<std::pair<int, Bytes>> expected = {{0xEB, frame('B', '1', "RX")}};
    EXPECT_EQ(tunnelled(), expected);
    EXPECT_EQ(std::memcmp(&data, &record, sizeof(data)), 0);
    log.clear();
    link().GetUPSStatus(0xEC, '1', &data);
    EXPECT_EQ(said(), "Err GetUPSStatus: MODULO NON INIZIALIZZATO!!! MCUAdd:0xEC UPSAdd:1\n");
}

TEST_F(ModuleData, StatusDetailCanBeSet) {
    statusCoding_t detail;
    std::memset(&detail, 0x33, sizeof(detail));
    link().SetUPSStatusDetail(0xEB, '1', &detail);
    EXPECT_EQ(std::memcmp(&plant.module('B').desc.module.statusDetail, &detail, sizeof(detail)), 0);
    EXPECT_TRUE(in().dataAreFree());
    EXPECT_EQ(said(), "");
    link().SetUPSStatusDetail(0xEC, '1', &detail);
    link().SetUPSStatusDetail(0xE0, 0xFF, &detail);
    EXPECT_EQ(log.errors(), 2U);
    EXPECT_TRUE(log.has("Err", "MODULO NON INIZIALIZZATO!!! MCUAdd:0xEC UPSAdd:1"));
}

TEST_F(ModuleData, CommunicationStateIsCopied) {
    plant.slot('B').commStatus.errorCnt = 9;
    commStatus_t status = {};
    link().GetUPSCommStatus(0xEB, '1', &status);
    EXPECT_EQ(status.errorCnt, 9);
    EXPECT_TRUE(status.active);
    EXPECT_TRUE(in().dataAreFree());
    link().GetUPSCommStatus(0xED, '2', &status);
    EXPECT_EQ(status.errorCnt, 9);
    EXPECT_EQ(said(), "Err GetUPSCommStatus: MODULO NON INIZIALIZZATO!!! MCUAdd:0xED UPSAdd:2\n");
}

// Every access to the records waits for whoever is at them.
TEST_F(ModuleData, AccessWaitsForTheData) {
    plant.module('A').identification.timestamp = 1;
    plant.module('A').nominal.timestamp = 1;
    plant.module('A').desc.module.data.timestamp = static_cast<time32_t>(VirtualClock::START_OF_WALL);
    statusCoding_t detail = {};
    commStatus_t status = {};
    const std::vector<std::function<void()>> accesses = {
        [&] { link().GetIdentification(0xEA, '1', &id); },    [&] { link().GetNominal(0xEA, '1', &nominal); },
        [&] { link().GetUPSStatus(0xEA, '1', &data); },       [&] { link().SetUPSStatusDetail(0xEA, '1', &detail); },
        [&] { link().GetUPSCommStatus(0xEA, '1', &status); }, [&] { link().clearErrorCnt(); },
        [&] { link().DeRegisterModule(0xEA, '1'); },          [&] { link().RegisterModule(0xEA, '1'); },
    };
    for (std::size_t i = 0; i < accesses.size(); ++i) {
        std::atomic<bool> isOver{false};
        link().lockMLinkData();
        std::thread other([&] {
            accesses[i]();
            isOver = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_FALSE(isOver) << i;
        link().unlockMLinkData();
        other.join();
    }
}

TEST_F(ModuleData, ErrorsOfTheOwnModuleCanBeCleared) {
    plant.slot('A').commStatus.errorCnt = 9;
    plant.slot('B').commStatus.errorCnt = 8;
    link().clearErrorCnt();
    EXPECT_EQ(plant.slot('A').commStatus.errorCnt, 0);
    EXPECT_EQ(plant.slot('B').commStatus.errorCnt, 8);
    CABPAddr = 0xE0;
    link().clearErrorCnt();
    CABPAddr = 0xEA;
}

// ---------------------------------------------------------------------------------------------------------------

class ModuleClock : public ModuleData {
  protected:
    ModuleClock() : module(plant.moduleLine()) {}
    Module module;
};

TEST_F(ModuleClock, IsSetToTheLocalTime) {
    VirtualClock::setWall(1804255389);  // 5 March 2027, 14:03:09
    EXPECT_EQ(link().RefreshClockModule('1'), 0);
    EXPECT_EQ(module.frames, std::vector<Bytes>{frame(0x20, '1', "ST", text("050327140309"))});
    EXPECT_EQ(log.errors(), 0U);
}

TEST_F(ModuleClock, FailureIsTold) {
    module.refuses["ST"] = '3';
    EXPECT_EQ(link().RefreshClockModule('1'), -3);
    EXPECT_TRUE(log.has("Err", "Errore nell'aggiornamento dell'orologio del modulo 1"));
    EXPECT_EQ(module.asked.size(), 1U);
}

TEST_F(ModuleClock, OnlyOfAModule) {
    for (const uint8 address : {uint8('0'), uint8('8')}) {
        log.clear();
        EXPECT_EQ(link().RefreshClockModule(address), -1);
        EXPECT_EQ(said(), "Err RefreshClockModule: Indice del modulo non corretto!\n");
    }
    EXPECT_TRUE(module.asked.empty());
}

}  // namespace
