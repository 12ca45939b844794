// Storing what a module's reply carries. Numbers arrive as nibble-coded characters and are stored without scaling.
#include <cstring>

#include "Common/CommandTable.h"
#include "Common/LogStep.h"
#include "Common/SysMgr.h"
#include "MLINK/MLINK.h"
#include "MLINK/MLINKInternal.h"
#include "MLINK/ThreadMLINK.h"

namespace {

// A number of a reply: `chars` characters at data offset `d`, into `size` bytes at `offset` of the node.
struct Field {
    uint8 d;
    uint8 chars;
    uint16 offset;
    uint8 size;
};
#define NODE_FIELD(d, chars, member) \
    { d, chars, offsetof(virtualNode_t, member), sizeof(static_cast<virtualNode_t*>(nullptr)->member) }
#define DATA_FIELD(d, chars, member) NODE_FIELD(d, chars, desc.module.data.member)

constexpr Field fieldsGN[] = {
    NODE_FIELD(0, 5, nominal.VA),         NODE_FIELD(5, 5, nominal.W),     NODE_FIELD(10, 3, nominal.BatteryV),
    NODE_FIELD(13, 3, nominal.BatteryAh), NODE_FIELD(16, 3, nominal.Vout), NODE_FIELD(19, 3, nominal.FreqOut),
};
constexpr Field fieldsRS[] = {
    DATA_FIELD(5, 3, Frq_in),   DATA_FIELD(8, 3, Vin[0]),   DATA_FIELD(11, 3, Frq_out), DATA_FIELD(14, 3, Vout[0]),
    DATA_FIELD(17, 2, Load[0]), DATA_FIELD(19, 3, Frq_byp), DATA_FIELD(22, 3, Vbyp[0]), DATA_FIELD(25, 4, VbatRS),
    DATA_FIELD(34, 2, Temp0),   DATA_FIELD(36, 3, Vin[1]),  DATA_FIELD(39, 3, Vin[2]),  DATA_FIELD(42, 3, Vout[1]),
    DATA_FIELD(45, 2, Load[1]), DATA_FIELD(47, 3, Vbyp[1]), DATA_FIELD(50, 3, Vout[2]), DATA_FIELD(53, 2, Load[2]),
    DATA_FIELD(55, 3, Vbyp[2]),
};
// Only told by a module that has its battery.
constexpr Field fieldsRSBattery[] = {DATA_FIELD(29, 2, Carica_adj), DATA_FIELD(31, 3, Aut_time)};
constexpr Field fieldsRE[] = {
    DATA_FIELD(16, 4, Iout[0]), DATA_FIELD(20, 4, Iout[1]), DATA_FIELD(24, 4, Iout[2]),
    DATA_FIELD(28, 5, Watt[0]), DATA_FIELD(33, 5, Watt[1]), DATA_FIELD(38, 5, Watt[2]),
    DATA_FIELD(43, 5, Va[0]),   DATA_FIELD(48, 5, Va[1]),   DATA_FIELD(53, 5, Va[2]),
};
constexpr Field fieldsRK[] = {
    DATA_FIELD(34, 4, Iout_pk[0]), DATA_FIELD(38, 4, Iout_pk[1]), DATA_FIELD(42, 4, Iout_pk[2]),
    DATA_FIELD(46, 2, Temp1),      DATA_FIELD(48, 2, Temp2),      DATA_FIELD(50, 2, Temp3),
    DATA_FIELD(52, 2, Temp4),      DATA_FIELD(54, 2, Temp5),      DATA_FIELD(56, 2, Temp6),
};
constexpr Field fieldsDE[] = {DATA_FIELD(43, 4, Iin[0]), DATA_FIELD(47, 4, Iin[1]), DATA_FIELD(51, 4, Iin[2])};

void storeNumber(virtualNode_t& node, const Field& field, uint32 value) {
    // Little-endian: the low bytes stand first, at whatever address the field has.
    std::memcpy(reinterpret_cast<uint8*>(&node) + field.offset, &value, field.size);
}

template <size_t N>
void storeFields(virtualNode_t& node, const uint8* data, const Field (&fields)[N]) {
    for (const Field& field : fields) {
        storeNumber(node, field, MLINK_DCd2Dec(data + field.d, field.chars));
    }
}

// A text of `width` characters, terminated in the record.
void storeText(char* text, const uint8* data, int width) {
    std::memcpy(text, data, static_cast<size_t>(width));
    text[width] = '\0';
}

// A bit of the RS reply's status characters: set in the node where all bits of `bits` are set in the character, or, for
// an inverse one, where they are not.
struct StatusBit {
    uint8 d;
    uint8 bits;
    uint16 offset;
    uint8 mask;
    bool inverse;
};
#define STATUS_BYTE(member) offsetof(virtualNode_t, desc.module.data.member)
constexpr StatusBit statusBitsRS[] = {
    {0, 0x08, STATUS_BYTE(status), 0x01, false},     // Output_Powered
    {0, 0x04, STATUS_BYTE(alarm), 0x08, false},      // Lock
    {0, 0x02, STATUS_BYTE(status), 0x02, false},     // Battery_Working
    {0, 0x02, STATUS_BYTE(status), 0x08, true},      // Line_Present
    {0, 0x01, STATUS_BYTE(alarm), 0x80, false},      // Battery_Low
    {1, 0x08, STATUS_BYTE(status), 0x04, false},     // On_Bypass
    {1, 0x0C, STATUS_BYTE(extStatus), 0x04, false},  // Eco_Mode
    {2, 0x08, STATUS_BYTE(alarm), 0x40, false},      // Bypass_Bad
    {2, 0x04, STATUS_BYTE(extStatus), 0x40, false},  // Battery_Charging
    {2, 0x01, STATUS_BYTE(extStatus), 0x10, false},  // Replace_Battery
    {3, 0x08, STATUS_BYTE(status), 0x10, false},     // Shutdown_Active
    {3, 0x04, STATUS_BYTE(status), 0x20, false},     // Shutdown_Imminent
    {3, 0x02, STATUS_BYTE(extStatus), 0x08, false},  // Test_in_progress
    {4, 0x04, STATUS_BYTE(alarm), 0x20, false},      // Alarm_Overload
    {4, 0x02, STATUS_BYTE(alarm), 0x10, false},      // Alarm_Temperature
};

using Decoder = void (*)(virtualNode_t& node, const pckStruct& reply, time_t timestamp);

const uint8* dataOf(const pckStruct& reply) {
    return static_cast<const uint8*>(reply.pParam);
}

void decodeGI(virtualNode_t& node, const pckStruct& reply, time_t timestamp) {
    const uint8* d = dataOf(reply);
    identification_t& id = node.identification;
    storeText(id.SN, d, 16);
    storeText(id.Model, d + 16, 16);
    storeText(id.SWVer, d + 32, 12);
    id.IO_Cfg = static_cast<IO_Cfg_e>(d[44]);
    id.UPS_Type = static_cast<UPS_Type_e>(d[45]);
    id.Boost_Cfg = static_cast<Boost_Cfg_e>(d[46]);
    id.Buck_Cfg = static_cast<Buck_Cfg_e>(d[47]);
    id.Error_CTRL = static_cast<Error_CTRL_e>(d[48]);
    id.PwrShareCfg = static_cast<PwrShare_e>(d[49]);
    id.BattBenches = static_cast<BattBenches_e>(d[50]);
    if (d[51] != '0') {
        id.NBattForBench = d[51] & 0x0F;
    }
    id.ParallelInfo = static_cast<ParallelSystem_e>(d[52]);
    std::memcpy(id.tbdGI, d + 53, sizeof(id.tbdGI));
    id.partialInfo |= GIexecuted;
    if (reply.Src == BYPASSUNIT || (id.partialInfo & GEexecuted) != 0) {
        id.timestamp = static_cast<time32_t>(timestamp);
    }
}

void decodeGE(virtualNode_t& node, const pckStruct& reply, time_t timestamp) {
    // This version never completes an identification.
    static constexpr char incomplete[] = "SWQ417-ZZ-ZZ";
    static constexpr int nibbles[] = {7, 8, 10, 11};
    const uint8* d = dataOf(reply);
    identification_t& id = node.identification;
    // In memory of its own: other processes may change the record at any instant.
    char version[sizeof(id.SWVer_AUX)];
    storeText(version, d, 12);
    const bool incompleteAsReceived = std::strcmp(version, incomplete) == 0;
    for (const int i : nibbles) {
        const uint8 c = static_cast<uint8>(version[i]);
        if (c > '9') {
            version[i] = static_cast<char>(c + 7);
        }
    }
    std::memcpy(id.SWVer_AUX, version, sizeof(version));
    std::memcpy(id.tbdGE, d + 12, sizeof(id.tbdGE));
    if (reply.Src == BYPASSUNIT || incompleteAsReceived || std::strcmp(version, incomplete) == 0) {
        return;
    }
    id.partialInfo |= GEexecuted;
    if ((id.partialInfo & GIexecuted) != 0) {
        id.timestamp = static_cast<time32_t>(timestamp);
    }
}

void decodeGN(virtualNode_t& node, const pckStruct& reply, time_t timestamp) {
    storeFields(node, dataOf(reply), fieldsGN);
    const uint32 wModule = pSysMgr->Cfg.WModule;
    if (reply.Src != BYPASSUNIT && wModule != 0 && node.nominal.W != wModule) {
        node.desc.module.data.PMStatus.wrongPower = 1;
    }
    node.nominal.timestamp = static_cast<time32_t>(timestamp);
    if (node.identification.NBattForBench == 0) {
        node.identification.NBattForBench = static_cast<uint8>(node.nominal.BatteryV / 12);
    }
}

void decodeRS(virtualNode_t& node, const pckStruct& reply, time_t /*timestamp*/) {
    const uint8* d = dataOf(reply);
    uint8* bytes = reinterpret_cast<uint8*>(&node);
    for (const StatusBit& bit : statusBitsRS) {
        const bool all = (d[bit.d] & bit.bits) == bit.bits;
        if (all != bit.inverse) {
            bytes[bit.offset] = static_cast<uint8>(bytes[bit.offset] | bit.mask);
        } else {
            bytes[bit.offset] = static_cast<uint8>(bytes[bit.offset] & ~bit.mask);
        }
    }
    storeFields(node, d, fieldsRS);
    if (node.desc.module.data.switchStatus.Bt_present) {
        storeFields(node, d, fieldsRSBattery);
    } else {
        node.desc.module.data.Carica_adj = 0;
        node.desc.module.data.Aut_time = 0;
    }
}

void decodeRE(virtualNode_t& node, const pckStruct& reply, time_t /*timestamp*/) {
    storeFields(node, dataOf(reply), fieldsRE);
}

void decodeRK(virtualNode_t& node, const pckStruct& reply, time_t /*timestamp*/) {
    storeFields(node, dataOf(reply), fieldsRK);
}

void decodeDE(virtualNode_t& node, const pckStruct& reply, time_t /*timestamp*/) {
    storeFields(node, dataOf(reply), fieldsDE);
}

void decodeDS(virtualNode_t& node, const pckStruct& reply, time_t /*timestamp*/) {
    const uint8* d = dataOf(reply);
    dataObject_t& data = node.desc.module.data;
    const uint32 batteries = node.identification.NBattForBench;
    data.Vbatp = static_cast<uint16>(batteries * MLINK_DCd2Dec(d + 13, 3) / 10);
    data.Vbatn = static_cast<uint16>(batteries * MLINK_DCd2Dec(d + 16, 3) / 10);
    uint32 positive = MLINK_DCd2Dec(d + 52, 3);
    uint32 negative = MLINK_DCd2Dec(d + 55, 3);
    if (data.status.Battery_Working) {
        positive = 0u - positive;  // a discharge current is negative
        negative = 0u - negative;
    }
    data.Ibatp = static_cast<int32>(positive);
    data.Ibatn = static_cast<int32>(negative);
}

bool anyBit(const char* states, int first, int last) {
    for (int i = first; i <= last; ++i) {
        if (states[i] != 0) {
            return true;
        }
    }
    return false;
}

void decodeRC(virtualNode_t& node, const pckStruct& reply, time_t timestamp) {
    const uint8* d = dataOf(reply);
    statusCoding_t& detail = node.desc.module.statusDetail;
    // Each character most significant bit first, into bytes least significant bit first.
    for (int k = 0; k < NUMRCBYTE; ++k) {
        uint8 byte = 0;
        for (int bit = 0; bit < 8; ++bit) {
            const uint8 character = d[2 * k + bit / 4];
            if ((character & (0x08 >> (bit % 4))) != 0) {
                byte = static_cast<uint8>(byte | (1 << bit));
            }
        }
        detail.states[k] = static_cast<char>(byte);
    }
    dataObject_t& data = node.desc.module.data;
    data.switchStatus.Bt_present = !detail.bits.BatteryPosNotPresent && !detail.bits.BatteryNegNotPresent;
    data.alarm.Warning = anyBit(detail.states, 0, 1);
    data.alarm.Anomaly = anyBit(detail.states, 2, 7);
    data.alarm.Fault = anyBit(detail.states, 8, 13);
    data.alarm.Lock = anyBit(detail.states, 14, 19);
    detail.timestamp = static_cast<time32_t>(timestamp);
}

// What happens with a reply, by command.
enum class Action { Acknowledge, Decode, Nothing, RefuseGM };
struct Command {
    uint8 main;
    uint8 sub;
    Action action;
    Decoder decode;
    uint16 length;  // data that the decoding reads
};
constexpr Command commands[] = {
    {'C', 'B', Action::Acknowledge, nullptr, 0},
    {'C', 'D', Action::Acknowledge, nullptr, 0},
    {'C', 'F', Action::Acknowledge, nullptr, 0},
    {'C', 'M', Action::Acknowledge, nullptr, 0},
    {'C', 'P', Action::Acknowledge, nullptr, 0},
    {'C', 'R', Action::Acknowledge, nullptr, 0},
    {'C', 'S', Action::Acknowledge, nullptr, 0},
    {'C', 'U', Action::Acknowledge, nullptr, 0},
    {'D', 'E', Action::Decode, decodeDE, REDATALENGTH},
    {'D', 'S', Action::Decode, decodeDS, REDATALENGTH},
    {'D', 'C', Action::Nothing, nullptr, 0},
    {'G', 'E', Action::Decode, decodeGE, GEDATALENGTH},
    {'G', 'I', Action::Decode, decodeGI, GIDATALENGTH},
    {'G', 'N', Action::Decode, decodeGN, GNDATALENGTH},
    {'G', 'M', Action::RefuseGM, nullptr, 0},
    {'R', 'C', Action::Decode, decodeRC, RCDATALENGTH},
    {'R', 'E', Action::Decode, decodeRE, REDATALENGTH},
    {'R', 'K', Action::Decode, decodeRK, RKDATALENGTH},
    {'R', 'S', Action::Decode, decodeRS, RSDATALENGTH_TT},
    {'S', 'M', Action::Acknowledge, nullptr, 0},
    {'S', 'T', Action::Nothing, nullptr, 0},
    {'S', 'V', Action::Nothing, nullptr, 0},
    {'T', 'B', Action::Acknowledge, nullptr, 0},
};

void decodeInto(uint8 boxId, time_t timestamp, const pckStruct& reply, const Command& command) {
    ModuleQueriesData_t* slot = pSysMgr->pThMLink->slotOf(boxId, reply.Src);
    if (slot == nullptr || slot->pVN == nullptr || reply.ParamLen < command.length) {
        DBG_E_OF("MLINK_ManageData", "Risposta %c%c scartata: box:%d Src:0x%02X Len:%d\n", reply.MainCmd, reply.SubCmd,
                 boxId, reply.Src, reply.ParamLen);
        return;
    }
    command.decode(*slot->pVN, reply, timestamp);
}

}  // namespace

void MLINK_ManageData(uint8 boxId, time_t timestamp, uint8* pckReply) {
    pckStruct reply;
    MLINK_ExtractQuery(reply, pckReply);
    if (const Command* const command = findCommand(commands, reply)) {
        switch (command->action) {
            case Action::Acknowledge:
                MLINK_ACKVerify(boxId, timestamp, reply);
                break;
            case Action::Decode:
                decodeInto(boxId, timestamp, reply, *command);
                break;
            case Action::RefuseGM:
                DBG_E("NON IMPARTIRE LA QUERY GM DALLE CODE!!!\n");
                DBG_E("USARE LA CHIAMATA DIRETTA InsertSingleQC!!!\n");
                break;
            case Action::Nothing:
                break;
        }
        return;
    }
    if (hasMainCmd(commands, reply.MainCmd)) {
        DBG_E("SubCmd %c non supportato per il MainCmd %c\n", reply.SubCmd, reply.MainCmd);
    } else {
        DBG_E("MainCmd %c non supportato\n", reply.MainCmd);
    }
}
