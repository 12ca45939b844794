#include "tools/ugwctl/Picture.h"

#include <ctime>

#include "tools/ugwctl/Fields.h"
#include "tools/ugwctl/States.h"
#include "tools/ugwctl/Text.h"

namespace ugwctl {
namespace {

constexpr int MIN_WIDTH = 80;
constexpr int BAR = 9;  // characters of a full load bar
constexpr int PER_CENT = 100;
constexpr int HIGH_LOAD = 80;          // %
constexpr std::size_t MAX_ALARMS = 6;  // of a cabinet, beyond which they are counted
constexpr uint16 NO_WORD = 0xFFFF;
constexpr uint8 NO_BYTE = 0xFF;

std::string plain(std::int64_t value, std::int64_t none) {
    return value == none ? std::string("-") : format("%lld", static_cast<long long>(value));
}

// A bit of a record and what it is called in the view.
struct Sign {
    Style style;
    const char* text;
    bool (*isOn)(const dataObject_t& ups);
};
#define SIGN(style, text, bit)                                                   \
    {                                                                            \
        Style::style, text, [](const dataObject_t& ups) { return ups.bit != 0; } \
    }
constexpr Sign signs[] = {
    SIGN(Alarm, "LOCK", alarm.Lock),
    SIGN(Alarm, "FAULT", alarm.Fault),
    SIGN(Alarm, "overload", alarm.Alarm_Overload),
    SIGN(Alarm, "overtemperature", alarm.Alarm_Temperature),
    SIGN(Alarm, "battery low", alarm.Battery_Low),
    SIGN(Alarm, "shutdown imminent", status.Shutdown_Imminent),
    SIGN(Notice, "shutdown active", status.Shutdown_Active),
    SIGN(Notice, "bypass bad", alarm.Bypass_Bad),
    SIGN(Notice, "manual bypass", status.SWMB),
    SIGN(Notice, "replace battery", extStatus.Replace_Battery),
    SIGN(Notice, "anomaly", alarm.Anomaly),
    SIGN(Notice, "warning", alarm.Warning),
    SIGN(Notice, "wrong power", PMStatus.wrongPower),
    SIGN(Notice, "battery test", extStatus.Test_in_progress),
    SIGN(Notice, "eco mode", extStatus.Eco_Mode),
};
#undef SIGN

std::vector<Span> signsOf(const dataObject_t& ups) {
    std::vector<Span> found;
    for (const Sign& sign : signs) {
        if (sign.isOn(ups)) {
            found.push_back({sign.style, sign.text});
        }
    }
    return found;
}

enum class Source { None, Mains, Bypass, Battery };

Source sourceOf(const dataObject_t& ups) {
    if (!ups.status.Output_Powered) {
        return Source::None;
    }
    if (ups.status.On_Bypass || ups.status.SWMB) {
        return Source::Bypass;
    }
    return ups.status.Battery_Working ? Source::Battery : Source::Mains;
}

Span flowOf(Source source) {
    switch (source) {
        case Source::Mains:
            return {Style::Good, "mains ==> load"};
        case Source::Bypass:
            return {Style::Notice, "bypass ==> load"};
        case Source::Battery:
            return {Style::Alarm, "battery ==> load"};
        default:
            return {Style::Alarm, "load not powered"};
    }
}

// The three roads of the power, the load at the end of the middle one.
std::vector<Span> roads(const dataObject_t& ups) {
    const Source source = sourceOf(ups);
    const bool isCharging = ups.extStatus.Battery_Charging != 0;
    const char* const load = source == Source::None ? "+ x load" : "+=> load";
    return {{source == Source::Mains ? Style::Good : Style::Plain,
             format("mains   %s+", source == Source::Mains || isCharging ? "==="
                                   : ups.status.Line_Present             ? "---"
                                                                         : "   ")},
            {source == Source::Bypass ? Style::Notice : Style::Plain,
             format("bypass  %s%s", source == Source::Bypass ? "===" : "   ", load)},
            {source == Source::Battery ? Style::Alarm : Style::Plain,
             format("battery %s+", source == Source::Battery ? "==="
                                   : isCharging              ? "<=="
                                                             : "   ")}};
}

Span loadBar(int phase, int load) {
    const int filled = MIN(MAX(load, 0), PER_CENT) * BAR / PER_CENT;
    const std::string bar =
        std::string(static_cast<std::size_t>(filled), '#') + std::string(static_cast<std::size_t>(BAR - filled), ' ');
    return {load > PER_CENT    ? Style::Alarm
            : load > HIGH_LOAD ? Style::Notice
                               : Style::Plain,
            format("L%d [%s]%4d%%", phase + 1, bar.c_str(), load)};
}

// The lines of a cabinet, at most `width` characters each.
std::vector<Span> cabinetColumn(const Snapshot& snapshot, int cabinet) {
    const virtualNode_t& node = *snapshot.cabinetNode(cabinet);
    const bool isReachable = snapshot.cabinetReachable(cabinet);
    const dataObject_t ups = node.desc.upsBox.Ups;
    const std::int64_t age = ageOf(snapshot.now, ups.timestamp);
    std::vector<Span> lines;
    lines.push_back({isReachable ? Style::Bold : Style::Alarm,
                     format("%c  %s", 'A' + cabinet,
                            !isReachable         ? "LOST"
                            : ups.timestamp == 0 ? "no data"
                                                 : format("%lld s", static_cast<long long>(age)).c_str())});
    if (!isReachable || ups.timestamp == 0) {
        if (isReachable && !snapshot.moduleReachable(cabinet)) {
            lines.push_back({Style::Alarm, "module lost"});
        }
        return lines;
    }
    for (const Span& road : roads(ups)) {
        lines.push_back(road);
    }
    lines.push_back({Style::Plain, format("in  %3d %3d %3d V", ups.Vin[0], ups.Vin[1], ups.Vin[2])});
    lines.push_back({Style::Plain, format("out %3d %3d %3d V", ups.Vout[0], ups.Vout[1], ups.Vout[2])});
    for (int phase = LINE1; phase <= LINE3; ++phase) {
        lines.push_back(loadBar(phase, ups.Load[phase]));
    }
    lines.push_back({Style::Plain, format("bat %s V %+.1f A", plain(ups.VbatRS, NO_WORD).c_str(), ups.Ibatp / 10.0)});
    lines.push_back({Style::Plain, format("    %s %% %s min", plain(ups.Carica_adj, NO_BYTE).c_str(),
                                          plain(ups.Aut_time, NO_WORD).c_str())});
    lines.push_back({Style::Plain, format("temp %d %d %d C", ups.Temp0, ups.Temp1, ups.Temp2)});
    std::vector<Span> alarms = signsOf(ups);
    if (const virtualNode_t* const module = snapshot.moduleNode(cabinet)) {
        for (const State& state : statesOf(*module)) {
            if (state.stateClass <= StateClass::Warning) {
                alarms.push_back({state.stateClass <= StateClass::Fault ? Style::Alarm : Style::Notice,
                                  state.tag + " " + (state.text.empty() ? state.name : state.text)});
            }
        }
    }
    const std::size_t more = alarms.size() > MAX_ALARMS ? alarms.size() - MAX_ALARMS : 0;
    alarms.resize(alarms.size() - more);
    lines.insert(lines.end(), alarms.begin(), alarms.end());
    if (more > 0) {
        lines.push_back({Style::Notice, format("and %zu more", more)});
    }
    return lines;
}

void addColumns(Picture& picture, const Snapshot& snapshot, int width) {
    std::vector<std::vector<Span>> columns;
    std::size_t height = 0;
    for (int cabinet = 0; cabinet < MAXUPSBOX; ++cabinet) {
        if (snapshot.hasCabinet(cabinet)) {
            columns.push_back(cabinetColumn(snapshot, cabinet));
            height = MAX(height, columns.back().size());
        }
    }
    const std::size_t room = static_cast<std::size_t>(width) / columns.size();
    for (std::size_t row = 0; row < height; ++row) {
        Line line;
        for (const std::vector<Span>& column : columns) {
            Span cell = row < column.size() ? column[row] : Span{Style::Plain, ""};
            cell.text = cell.text.substr(0, room - 1);
            cell.text.resize(room, ' ');
            line.push_back(cell);
        }
        picture.push_back(line);
    }
}

void addSystem(Picture& picture, const Snapshot& snapshot) {
    const dataObject_t ups = snapshot.root().desc.sys.Ups;
    const nominal_t nominal = snapshot.root().nominal;
    const std::int64_t watts = std::int64_t{ups.Watt[0]} + ups.Watt[1] + ups.Watt[2];
    picture.push_back({{Style::Bold, "System   "},
                       flowOf(sourceOf(ups)),
                       {Style::Plain, ups.extStatus.Battery_Charging ? "   battery charging" : ""}});
    picture.push_back({{Style::Plain, format("  in   %3d %3d %3d V  %4.1f Hz    out  %3d %3d %3d V  %4.1f Hz",
                                             ups.Vin[0], ups.Vin[1], ups.Vin[2], ups.Frq_in / 10.0, ups.Vout[0],
                                             ups.Vout[1], ups.Vout[2], ups.Frq_out / 10.0)}});
    picture.push_back(
        {{Style::Plain,
          format("  load %3d %3d %3d %%  %lld of %lu W    battery %s V %+.1f A  %s %%  %s min    %d C", ups.Load[0],
                 ups.Load[1], ups.Load[2], static_cast<long long>(watts), static_cast<unsigned long>(nominal.W),
                 plain(ups.VbatRS, NO_WORD).c_str(), ups.Ibatp / 10.0, plain(ups.Carica_adj, NO_BYTE).c_str(),
                 plain(ups.Aut_time, NO_WORD).c_str(), ups.Temp0)}});
}

Line systemAlarms(const Snapshot& snapshot) {
    std::vector<Span> alarms;
    for (int cabinet = 0; cabinet < MAXUPSBOX; ++cabinet) {
        if (snapshot.hasCabinet(cabinet) && !snapshot.cabinetReachable(cabinet)) {
            alarms.push_back({Style::Alarm, format("cabinet %c lost", 'A' + cabinet)});
        } else if (snapshot.moduleNode(cabinet) != nullptr && !snapshot.moduleReachable(cabinet)) {
            alarms.push_back({Style::Alarm, format("module %c lost", 'A' + cabinet)});
        }
    }
    for (const Span& sign : signsOf(snapshot.root().desc.sys.Ups)) {
        alarms.push_back(sign);
    }
    const sysStatus_t status = snapshot.root().desc.sys.sysStatus;
    if (status.LostRedundancy) {
        alarms.push_back({Style::Notice, "redundancy lost"});
    } else if (status.LowRedundancy) {
        alarms.push_back({Style::Notice, "redundancy low"});
    }
    const externalSwitchStatus_t switches = snapshot.root().desc.sys.externalSwitchStatus;
    if (switches.EPO) {
        alarms.push_back({Style::Alarm, "emergency power off"});
    }
    Line line = {{Style::Bold, "Alarms   "}};
    for (const Span& alarm : alarms) {
        line.push_back({Style::Plain, line.size() > 1 ? ", " : ""});
        line.push_back(alarm);
    }
    if (alarms.empty()) {
        line.push_back({Style::Good, "none"});
    }
    return line;
}

std::string clock(std::int64_t now) {
    const std::time_t seconds = static_cast<std::time_t>(now);
    struct tm parts;
    char text[16] = "";
    if (localtime_r(&seconds, &parts) != nullptr) {
        std::strftime(text, sizeof(text), "%H:%M:%S", &parts);
    }
    return text;
}

}  // namespace

Picture drawPlant(const Snapshot& snapshot, const std::string& problem, int width) {
    Picture picture;
    const std::int64_t age = snapshot.age();
    const std::string told =
        age < 0 ? std::string("no data yet") : format("data %lld s old", static_cast<long long>(age));
    picture.push_back(
        {{Style::Bold, idOf(snapshot.root())},
         {Style::Plain, "  " + printable(fieldText(snapshot.root().Description, sizeof(snapshot.root().Description))) +
                            "  " + clock(snapshot.now) + "  "},
         {age < 0 || age > OLD_AFTER ? Style::Alarm : Style::Plain, told}});
    if (!problem.empty()) {
        picture.push_back({{Style::Alarm, problem}});
    }
    addSystem(picture, snapshot);
    picture.push_back(systemAlarms(snapshot));
    picture.push_back({});
    addColumns(picture, snapshot, MAX(width, MIN_WIDTH));
    return picture;
}

std::string plainText(const Picture& picture) {
    std::string out;
    for (const Line& line : picture) {
        std::string text;
        for (const Span& span : line) {
            text += span.text;
        }
        text.erase(text.find_last_not_of(' ') + 1);
        out += text + "\n";
    }
    return out;
}

}  // namespace ugwctl
