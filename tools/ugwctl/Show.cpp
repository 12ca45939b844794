// The tree and its nodes as text.
#include <cstring>
#include <ctime>

#include "tools/ugwctl/Fields.h"
#include "tools/ugwctl/States.h"
#include "tools/ugwctl/Views.h"

namespace ugwctl {
namespace {

constexpr std::size_t INDENTATION = 2;
constexpr int NAME_WIDTH = 22;
constexpr std::size_t DUMP_BYTES = 16;  // in a line

std::string line(std::size_t depth, const std::string& name, const std::string& value) {
    const std::string pad(INDENTATION * depth, ' ');
    return pad + format("%-*s", NAME_WIDTH - static_cast<int>(pad.size()), name.c_str()) + " " + value + "\n";
}

std::string join(const std::vector<std::string>& words, const char* none) {
    std::string out;
    for (const std::string& word : words) {
        out += (out.empty() ? "" : " ") + word;
    }
    return out.empty() ? none : out;
}

std::string choiceText(const Field& field, std::int64_t value) {
    const char* const name = field.names.find(value);
    return name != nullptr ? name : format("unknown (%lld)", static_cast<long long>(value));
}

std::string valueText(const Field& field, const uint8* base, int index, std::int64_t now) {
    const std::int64_t value = number(field, base, index);
    switch (field.kind) {
        case Kind::Text:
            return printable(fieldText(base + field.offset, field.width));
        case Kind::Bytes:
        case Kind::States: {
            std::vector<std::string> bytes;
            bytes.reserve(field.width);
            for (int i = 0; i < field.width; ++i) {
                bytes.push_back(format("%02X", base[field.offset + i]));
            }
            return join(bytes, "");
        }
        case Kind::Time:
            return timeText(value, now);
        case Kind::Choice:
            return choiceText(field, value);
        case Kind::Flags:
            return join(setBits(field, value), "-");
        default:
            return scaledText(field, value);
    }
}

std::string recordText(const Record& record, const uint8* base, std::size_t depth, std::int64_t now);

std::string groupText(const Field& field, const uint8* base, std::size_t depth, std::int64_t now) {
    std::string out;
    for (int i = 0; i < field.count; ++i) {
        const std::string name = field.count == 1 ? std::string(field.name) : format("%s %d", field.name, i + 1);
        out += std::string(INDENTATION * depth, ' ') + name + "\n";
        out += recordText(*field.record, base + field.offset + i * field.width, depth + 1, now);
    }
    return out;
}

std::string statesLines(const uint8* states, std::size_t depth) {
    char bytes[NUMRCBYTE];
    std::memcpy(bytes, states, sizeof(bytes));
    std::string out;
    for (const State& state : setStates(bytes)) {
        out += line(depth, stateClassName(state.stateClass), stateLine(state));
    }
    return out.empty() ? line(depth, "states", "none") : out;
}

std::string recordText(const Record& record, const uint8* base, std::size_t depth, std::int64_t now) {
    std::string out;
    for (const Field& field : record) {
        if (field.kind == Kind::Group) {
            out += groupText(field, base, depth, now);
            continue;
        }
        if (field.kind == Kind::States) {
            out += statesLines(base + field.offset, depth);
            continue;
        }
        std::vector<std::string> values;
        values.reserve(field.count);
        for (int i = 0; i < field.count; ++i) {
            values.push_back(valueText(field, base, i, now));
        }
        if (field.unit != nullptr) {
            values.push_back(field.unit->symbol);
        }
        out += line(depth, field.name, join(values, ""));
    }
    return out;
}

const uint8* bytesOf(const virtualNode_t& node) {
    return reinterpret_cast<const uint8*>(&node);
}

std::string linkText(const Snapshot& snapshot, const char* name, uint8 link) {
    if (link == NULLNODE) {
        return std::string();
    }
    const std::string target = link < snapshot.nodes.size() && snapshot.nodes[link].nodetype != extNode
                                   ? idOf(snapshot.nodes[link])
                                   : format("%d", link);
    return format(" %s=%s", name, target.c_str());
}

std::string kindText(const virtualNode_t& node) {
    const char* const name = kindNames.find(node.nodetype);
    return name != nullptr ? name : format("unknown (%d)", node.nodetype);
}

std::string links(const Snapshot& snapshot, const virtualNode_t& node) {
    const std::string all = linkText(snapshot, "son", node.son) + linkText(snapshot, "next", node.nxtBrother) +
                            linkText(snapshot, "previous", node.prvBrother) + linkText(snapshot, "ext", node.ext);
    return all.empty() ? "-" : all.substr(1);
}

}  // namespace

std::string timeText(std::int64_t stamp, std::int64_t now) {
    if (stamp == 0) {
        return "never";
    }
    const std::time_t seconds = static_cast<std::time_t>(stamp);
    struct tm parts;
    char text[32];
    if (localtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts) == 0) {
        return format("%lld", static_cast<long long>(stamp));
    }
    const long long age = static_cast<long long>(now - stamp);
    return age >= 0 ? format("%s (%lld s ago)", text, age) : format("%s (%lld s ahead)", text, -age);
}

std::vector<std::size_t> allNodes(const Snapshot& snapshot) {
    std::vector<std::size_t> indices;
    for (std::size_t i = 0; i < snapshot.nodes.size(); ++i) {
        indices.push_back(i);
    }
    return indices;
}

std::string communication(const Snapshot& snapshot, const virtualNode_t& node) {
    const int cabinet = cabinetOf(node);
    if (node.nodetype == upsBoxNode) {
        return snapshot.cabinetReachable(cabinet) ? "reachable" : "lost";
    }
    if (node.nodetype == moduleNode) {
        return snapshot.moduleReachable(cabinet) ? "reachable" : "lost";
    }
    if (node.nodetype != sysNode) {
        return "-";
    }
    int known = 0;
    int reachable = 0;
    for (int id = 0; id < MAXUPSBOX; ++id) {
        known += snapshot.hasCabinet(id) ? 1 : 0;
        reachable += snapshot.cabinetReachable(id) ? 1 : 0;
    }
    return format("%d of %d cabinets reachable", reachable, known);
}

std::string treeText(const Snapshot& snapshot, const Paint& paint) {
    std::string out =
        format("%-5s %-12s %-10s %-32s %-28s %s\n", "index", "ID", "kind", "description", "communication", "links");
    for (std::size_t i = 0; i < snapshot.nodes.size(); ++i) {
        const virtualNode_t& node = snapshot.nodes[i];
        const bool isExtension = node.nodetype == extNode;
        const uint8* const text =
            bytesOf(node) + (isExtension ? offsetof(extData_t, DevTypeText) : offsetof(virtualNode_t, Description));
        const std::size_t width = isExtension ? sizeof(extData_t::DevTypeText) : sizeof(virtualNode_t::Description);
        const std::string state = communication(snapshot, node);
        const std::string padded = format("%-28s", state.c_str());
        out += format("%5zu %-12s %-10s %-32s ", i, idOf(node).c_str(), kindText(node).c_str(),
                      printable(fieldText(text, width)).c_str());
        out += state == "lost" ? paint.red(padded) : padded;
        out += " " + (isExtension ? std::string("-") : links(snapshot, node)) + "\n";
    }
    return out;
}

std::string showText(const Snapshot& snapshot, const std::vector<std::size_t>& nodes) {
    std::string out;
    for (const std::size_t index : nodes) {
        const virtualNode_t& node = snapshot.nodes[index];
        out += out.empty() ? "" : "\n";
        if (node.nodetype == extNode) {
            out +=
                format("node %zu (extension)\n", index) + recordText(extensionRecord, bytesOf(node), 1, snapshot.now);
            continue;
        }
        out += format("%s (%s)\n", idOf(node).c_str(), kindText(node).c_str());
        out += line(1, "Description", printable(fieldText(node.Description, sizeof(node.Description))));
        out += line(1, "index", format("%zu", index));
        out += line(1, "links", links(snapshot, node));
        out += line(1, "communication", communication(snapshot, node));
        out += recordText(nodeRecord, bytesOf(node), 1, snapshot.now);
        if (const Record* const desc = descRecord(node.nodetype)) {
            const Field& field = *desc->begin();
            out += recordText(*field.record, bytesOf(node) + field.offset, 1, snapshot.now);
        }
    }
    return out;
}

std::string showRaw(const Snapshot& snapshot, const std::vector<std::size_t>& nodes) {
    std::string out;
    for (const std::size_t index : nodes) {
        const virtualNode_t& node = snapshot.nodes[index];
        out += (out.empty() ? "" : "\n") + format("node %zu %s\n", index, idOf(node).c_str());
        const uint8* const bytes = bytesOf(node);
        for (std::size_t at = 0; at < sizeof(node); at += DUMP_BYTES) {
            std::string hex;
            std::string text;
            for (std::size_t i = at; i < MIN(at + DUMP_BYTES, sizeof(node)); ++i) {
                hex += format(" %02X", bytes[i]);
                text += bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.';
            }
            out += format("%04zu %-48s  %s\n", at, hex.c_str(), text.c_str());
        }
    }
    return out;
}

std::string statesText(const virtualNode_t& module, const Paint& paint) {
    std::string out;
    for (const State& state : statesOf(module)) {
        const std::string text = format("%-8s %s\n", stateClassName(state.stateClass), stateLine(state).c_str());
        out += state.stateClass <= StateClass::Fault     ? paint.red(text)
               : state.stateClass <= StateClass::Warning ? paint.yellow(text)
                                                         : text;
    }
    return out;
}

}  // namespace ugwctl
