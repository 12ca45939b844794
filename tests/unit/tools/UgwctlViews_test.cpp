#include <cstring>

#include "tools/ugwctl/Views.h"

#include <gtest/gtest.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include "HandMade.h"
#include "tools/ugwctl/Picture.h"

namespace {

using ugwctl::Snapshot;

constexpr char HOSTILE[] = "\x1b[2J\"\\\n\r\x07\x7f\x85\x9b\xff}{,;%s%n";

// A tree all of whose texts are hostile and without an end.
std::vector<virtualNode_t> hostileTree() {
    std::vector<virtualNode_t> nodes = handmade::tree();
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        char text[64];
        for (std::size_t at = 0; at < sizeof(text); ++at) {
            text[at] = HOSTILE[at % (sizeof(HOSTILE) - 1)];
        }
        virtualNode_t& node = nodes[i];
        if (i == handmade::EXT) {
            std::memcpy(reinterpret_cast<char*>(&node) + offsetof(extData_t, DevTypeText), text,
                        sizeof(extData_t::DevTypeText));
            continue;
        }
        std::memcpy(node.Description, text, sizeof(node.Description));
        std::memcpy(node.ID + 8, text, sizeof(node.ID) - 8);
        std::memcpy(node.identification.SN, text, sizeof(node.identification.SN));
        std::memcpy(node.identification.Model, text, sizeof(node.identification.Model));
        std::memcpy(node.identification.SWVer, text, sizeof(node.identification.SWVer));
    }
    return nodes;
}

void expectHarmless(const std::string& text) {
    for (const char c : text) {
        ASSERT_TRUE(c == '\n' || (c >= 0x20 && c < 0x7F)) << int{static_cast<unsigned char>(c)};
    }
}

QJsonObject parsed(const std::string& text) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(text), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();
    return document.object();
}

TEST(Views, LetNoHostileTextThrough) {
    const Snapshot snapshot = handmade::snapshot(hostileTree());
    expectHarmless(treeText(snapshot, ugwctl::Paint(false)));
    expectHarmless(showText(snapshot, allNodes(snapshot)));
    expectHarmless(showRaw(snapshot, allNodes(snapshot)));
    expectHarmless(showJson(snapshot, allNodes(snapshot)));
    expectHarmless(metricsText(snapshot));
    expectHarmless(plainText(drawPlant(snapshot, "", 80)));
}

TEST(ShowJson, KeepsEveryByteOfAText) {
    const Snapshot snapshot = handmade::snapshot(hostileTree());
    const QJsonObject node = parsed(showJson(snapshot, {handmade::BOX_B}))["nodes"].toArray()[0].toObject();
    const QByteArray expected(snapshot.nodes[handmade::BOX_B].Description, 32);
    EXPECT_EQ(node["description"].toString(), QString::fromLatin1(expected));
}

TEST(ShowJson, HasNumbersInTheirUnitsAndNullForNone) {
    std::vector<virtualNode_t> nodes = handmade::tree();
    dataObject_t& ups = nodes[handmade::ROOT].desc.sys.Ups;
    ups.Frq_out = 501;
    ups.Ibatp = -52;
    ups.Aut_time = 0xFFFF;
    ups.alarm.byte = 0x09;
    nodes[handmade::ROOT].desc.sys.MCUMUStatus.byte = 0xA1;
    const QJsonObject document = parsed(showJson(handmade::snapshot(nodes), {handmade::ROOT}));
    const QJsonObject desc = document["nodes"].toArray()[0].toObject()["desc"].toObject();
    const QJsonObject data = desc["Ups"].toObject();
    EXPECT_EQ(data["Frq_out"].toDouble(), 50.1);
    EXPECT_EQ(data["Ibatp"].toDouble(), -5.2);
    EXPECT_TRUE(data["Aut_time"].isNull());
    EXPECT_EQ(data["alarm"].toArray(), (QJsonArray{"Warning", "Lock"}));
    EXPECT_EQ(desc["MCUMUStatus"].toArray(), QJsonArray{"commErrorMCU"});
    EXPECT_EQ(desc["numBypassOff"].toInt(), 5);
    EXPECT_EQ(document["units"].toObject()["Frq_out"].toString(), "Hz");
    EXPECT_EQ(document["age"].toInt(), 3);
}

TEST(ShowText, NamesWhatItKnowsAndNumbersTheRest) {
    std::vector<virtualNode_t> nodes = handmade::tree();
    nodes[handmade::BOX_A].identification.IO_Cfg = TT;
    nodes[handmade::BOX_A].identification.UPS_Type = static_cast<UPS_Type_e>(200);
    nodes[handmade::BOX_A].desc.upsBox.Ups.status.byte = 0x0A;
    const Snapshot snapshot = handmade::snapshot(nodes);
    const std::string text = showText(snapshot, {handmade::BOX_A});
    EXPECT_NE(text.find("IO_Cfg             TT\n"), std::string::npos) << text;
    EXPECT_NE(text.find("UPS_Type           unknown (200)\n"), std::string::npos);
    EXPECT_NE(text.find("status             Battery_Working Line_Present\n"), std::string::npos);
    EXPECT_NE(text.find("2024-03-01 12:00:00 (3 s ago)\n"), std::string::npos);
    EXPECT_NE(text.find("UPSShelter         heard\n"), std::string::npos);
}

TEST(TimeText, KnowsNeverPastAndFuture) {
    EXPECT_EQ(ugwctl::timeText(0, 5), "never");
    EXPECT_EQ(ugwctl::timeText(1709294400, 1709294460), "2024-03-01 12:00:00 (60 s ago)");
    EXPECT_EQ(ugwctl::timeText(1709294400, 1709294399), "2024-03-01 12:00:00 (1 s ahead)");
}

TEST(Metrics, LeaveOutWhatIsNotKnown) {
    std::vector<virtualNode_t> nodes = handmade::tree();
    nodes[handmade::ROOT].desc.sys.Ups.Carica_adj = 0xFF;
    nodes[handmade::MODULE_A].desc.module.statusDetail.timestamp = 0;
    setElemAlarm(nodes[handmade::ROOT].desc.sys.subSystem.UPSBox[1], commLostAlarm);
    const std::string text = metricsText(handmade::snapshot(nodes));
    EXPECT_EQ(text.find("ugw_battery_charge_ratio{node=\"SA\"}"), std::string::npos);
    EXPECT_EQ(text.find("ugw_battery_voltage_volts{node=\"SA.BA.M1\"}"), std::string::npos);
    EXPECT_EQ(text.find("ugw_battery_voltage_volts{node=\"SA.BB\"}"), std::string::npos);
    EXPECT_NE(text.find("ugw_battery_voltage_volts{node=\"SA.BA\"} 0\n"), std::string::npos);
    EXPECT_NE(text.find("ugw_cabinet_reachable{cabinet=\"B\"} 0\n"), std::string::npos);
    EXPECT_NE(text.find("ugw_data_age_seconds 3\n"), std::string::npos);
    EXPECT_NE(ugwctl::metricsDown().find("\nugw_up 0\n"), std::string::npos);
}

TEST(Picture, ShowsTheRoadOfThePower) {
    struct Case {
        uint8 status;
        const char* flow;
    };
    for (const Case& wanted :
         {Case{0x09, "mains ==> load"}, Case{0x03, "battery ==> load"}, Case{0x0D, "bypass ==> load"},
          Case{0x89, "bypass ==> load"}, Case{0x08, "load not powered"}}) {
        std::vector<virtualNode_t> nodes = handmade::tree();
        nodes[handmade::ROOT].desc.sys.Ups.status.byte = wanted.status;
        const std::string text = plainText(drawPlant(handmade::snapshot(nodes), "", 80));
        EXPECT_NE(text.find(wanted.flow), std::string::npos) << text;
    }
}

TEST(Picture, FitsItsWidthWhateverItShows) {
    std::vector<virtualNode_t> nodes = handmade::tree();
    for (const std::size_t box : {handmade::BOX_A, handmade::BOX_B}) {
        std::memset(&nodes[box].desc.upsBox.Ups, 0xFF, sizeof(dataObject_t));
        std::memset(static_cast<void*>(&nodes[box + 2].desc.module.statusDetail), 0xFF, sizeof(statusCoding_t));
    }
    const ugwctl::Picture picture = drawPlant(handmade::snapshot(nodes), "", 80);
    std::size_t columns = 0;
    for (const ugwctl::Line& line : picture) {
        std::size_t width = 0;
        for (const ugwctl::Span& span : line) {
            width += span.text.size();
        }
        if (line.size() == 2 && width == 80) {
            ++columns;
        }
    }
    EXPECT_GT(columns, 10U);
    EXPECT_NE(plainText(picture).find("more"), std::string::npos) << "alarms beyond the room are counted";
}

TEST(Picture, TellsWhatIsLost) {
    std::vector<virtualNode_t> nodes = handmade::tree();
    setElemAlarm(nodes[handmade::ROOT].desc.sys.subSystem.UPSBox[1], commLostAlarm);
    setElemAlarm(nodes[handmade::BOX_A].desc.upsBox.subSystem.UPSShelter[0], commLostAlarm);
    const std::string text = plainText(drawPlant(handmade::snapshot(nodes), "it is gone", 80));
    EXPECT_NE(text.find("module A lost, cabinet B lost"), std::string::npos) << text;
    EXPECT_NE(text.find("B  LOST"), std::string::npos);
    EXPECT_NE(text.find("\nit is gone\n"), std::string::npos);
}

}  // namespace
