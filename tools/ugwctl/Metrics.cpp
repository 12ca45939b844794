// The plant in the text exposition format: one family of samples per measure, in base units.
#include <cstring>

#include "tools/ugwctl/Fields.h"
#include "tools/ugwctl/States.h"
#include "tools/ugwctl/Views.h"

namespace ugwctl {
namespace {

constexpr const char* phases[] = {"L1", "L2", "L3"};
constexpr int PHASES = 3;

struct Family {
    std::string name;
    std::string help;
    std::string samples;
};

/// Families in the order of their first sample; the format wants all samples of one together.
class Exposition {
  public:
    void add(const std::string& name, const std::string& help, const std::string& labels, double value) {
        std::string text = format("%.10g", value);
        family(name, help).samples += name + (labels.empty() ? "" : "{" + labels + "}") + " " + text + "\n";
    }
    std::string text() const {
        std::string out;
        for (const Family& each : families_) {
            out += "# HELP " + each.name + " " + each.help + "\n# TYPE " + each.name + " gauge\n" + each.samples;
        }
        return out;
    }

  private:
    Family& family(const std::string& name, const std::string& help) {
        for (Family& each : families_) {
            if (each.name == name) {
                return each;
            }
        }
        families_.push_back({name, help, ""});
        return families_.back();
    }
    std::vector<Family> families_;
};

std::string label(const char* name, const std::string& bytes) {
    std::string value;
    for (const char c : printable(bytes)) {
        if (c == '\\' || c == '"') {
            value += '\\';
        }
        value += c;
    }
    return std::string(name) + "=\"" + value + "\"";
}

void addFlags(Exposition& out, const Field& field, const uint8* base, const std::string& labels) {
    const std::int64_t value = number(field, base);
    for (const Name& bit : field.names) {
        if (std::strncmp(bit.name, "Free", 4) != 0) {
            out.add(std::string("ugw_") + field.metric, format("Bits of %s, 1 where set.", field.name),
                    labels + "," + label("flag", bit.name), static_cast<double>(value >> bit.value & 1));
        }
    }
}

void addMeasure(Exposition& out, const Field& field, const uint8* base, const std::string& labels) {
    const std::string name = std::string("ugw_") + field.metric + "_" + field.unit->metricName;
    for (int i = 0; i < field.count; ++i) {
        const std::int64_t value = number(field, base, i);
        if (!isNone(field, value)) {
            const std::string which = field.count == PHASES ? labels + "," + label("phase", phases[i]) : labels;
            out.add(name, format("Field %s of the record.", field.name), which,
                    scaled(field, value) * field.unit->metricScale);
        }
    }
}

void addRecord(Exposition& out, const Record& record, const uint8* base, const std::string& labels) {
    for (const Field& field : record) {
        if (field.kind == Kind::Group) {
            for (int i = 0; i < field.count; ++i) {
                addRecord(out, *field.record, base + field.offset + i * field.width, labels);
            }
        } else if (field.metric != nullptr && field.kind == Kind::Flags) {
            addFlags(out, field, base, labels);
        } else if (field.metric != nullptr) {
            addMeasure(out, field, base, labels);
        }
    }
}

// When what a node tells was last filled in, 0 never.
std::int64_t stampOf(const virtualNode_t& node) {
    switch (node.nodetype) {
        case sysNode:
            return node.nominal.timestamp;
        case upsBoxNode:
            return node.desc.upsBox.Ups.timestamp;
        default:
            return node.desc.module.statusDetail.timestamp;
    }
}

void addNode(Exposition& out, const Snapshot& snapshot, const virtualNode_t& node) {
    const std::string labels = label("node", fieldText(node.ID, sizeof(node.ID)));
    const char* const kind = kindNames.find(node.nodetype);
    const identification_t& who = node.identification;
    out.add("ugw_node_info", "Identification of a node.",
            labels + "," + label("kind", kind != nullptr ? kind : "unknown") + "," +
                label("serial", fieldText(who.SN, sizeof(who.SN))) + "," +
                label("model", fieldText(who.Model, sizeof(who.Model))) + "," +
                label("firmware", fieldText(who.SWVer, sizeof(who.SWVer))),
            1);
    const std::int64_t stamp = stampOf(node);
    if (stamp != 0) {
        out.add("ugw_node_age_seconds", "Age of what a node tells.", labels,
                static_cast<double>(MAX(snapshot.now - stamp, static_cast<std::int64_t>(0))));
    }
    // A cabinet or a module that isn't heard, or was never asked, has no measures of now.
    const int cabinet = cabinetOf(node);
    const bool isHeard = node.nodetype == sysNode ||
                         (node.nodetype == upsBoxNode && snapshot.cabinetReachable(cabinet)) ||
                         (node.nodetype == moduleNode && snapshot.moduleReachable(cabinet));
    if (!isHeard || stamp == 0) {
        return;
    }
    const uint8* const bytes = reinterpret_cast<const uint8*>(&node);
    addRecord(out, nodeRecord, bytes, labels);
    if (const Record* const desc = descRecord(node.nodetype)) {
        addRecord(out, *desc, bytes, labels);
    }
    if (node.nodetype == moduleNode) {
        int counts[STATE_CLASSES] = {};
        for (const State& state : statesOf(node)) {
            ++counts[static_cast<int>(state.stateClass)];
        }
        for (int i = 0; i < STATE_CLASSES; ++i) {
            out.add("ugw_module_states", "Status bits of a module that are set, by class.",
                    labels + "," + label("class", stateClassName(static_cast<StateClass>(i))), counts[i]);
        }
    }
}

void addUp(Exposition& out, bool isUp) {
    out.add("ugw_up", "1 if a gateway keeps the tree up to date.", "", isUp ? 1 : 0);
}

}  // namespace

std::string metricsText(const Snapshot& snapshot) {
    Exposition out;
    addUp(out, true);
    if (snapshot.age() >= 0) {
        out.add("ugw_data_age_seconds", "Age of the tree.", "", static_cast<double>(snapshot.age()));
    }
    for (int cabinet = 0; cabinet < MAXUPSBOX; ++cabinet) {
        if (snapshot.hasCabinet(cabinet)) {
            const std::string labels = label("cabinet", std::string(1, static_cast<char>('A' + cabinet)));
            out.add("ugw_cabinet_reachable", "1 if the gateway hears the card of a cabinet.", labels,
                    snapshot.cabinetReachable(cabinet) ? 1 : 0);
            if (snapshot.moduleNode(cabinet) != nullptr) {
                out.add("ugw_module_reachable", "1 if the module of a cabinet is heard.", labels,
                        snapshot.moduleReachable(cabinet) ? 1 : 0);
            }
        }
    }
    for (const virtualNode_t& node : snapshot.nodes) {
        if (node.nodetype != extNode) {
            addNode(out, snapshot, node);
        }
    }
    return out.text();
}

std::string metricsDown() {
    Exposition out;
    addUp(out, false);
    return out.text();
}

}  // namespace ugwctl
