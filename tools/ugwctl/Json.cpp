// The nodes as one JSON document.
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QString>
#include <cmath>
#include <cstring>

#include "tools/ugwctl/Fields.h"
#include "tools/ugwctl/States.h"
#include "tools/ugwctl/Views.h"

namespace ugwctl {
namespace {

QString latin1(const std::string& bytes) {
    return QString::fromLatin1(bytes.data(), static_cast<int>(bytes.size()));
}

QJsonValue integer(std::int64_t value) {
    return QJsonValue(static_cast<qint64>(value));
}

// A number in its unit, without the digits that binary fractions would add.
QJsonValue measureValue(const Field& field, std::int64_t value) {
    if (isNone(field, value)) {
        return QJsonValue();
    }
    if (field.unit == nullptr || field.unit->decimals == 0) {
        return integer(value);
    }
    const double power = std::pow(10.0, field.unit->decimals);
    return QJsonValue(std::round(scaled(field, value) * power) / power);
}

QJsonArray stateArray(const uint8* bytes) {
    char states[NUMRCBYTE];
    std::memcpy(states, bytes, sizeof(states));
    QJsonArray array;
    for (const State& state : setStates(states)) {
        QJsonObject object;
        object.insert("bit", state.bit);
        object.insert("class", stateClassName(state.stateClass));
        object.insert("tag", latin1(state.tag));
        object.insert("text", latin1(state.text));
        object.insert("name", state.name);
        array.append(object);
    }
    return array;
}

QJsonValue fieldValue(const Field& field, const uint8* base, int index) {
    const std::int64_t value = number(field, base, index);
    switch (field.kind) {
        case Kind::Text:
            return QJsonValue(latin1(fieldText(base + field.offset, field.width)));
        case Kind::Bytes: {
            QJsonArray bytes;
            for (int i = 0; i < field.width; ++i) {
                bytes.append(base[field.offset + i]);
            }
            return bytes;
        }
        case Kind::States:
            return stateArray(base + field.offset);
        case Kind::Time:
            return integer(value);
        case Kind::Choice: {
            const char* const name = field.names.find(value);
            return name != nullptr ? QJsonValue(name) : integer(value);
        }
        case Kind::Flags: {
            QJsonArray names;
            for (const std::string& name : setBits(field, value)) {
                names.append(latin1(name));
            }
            return names;
        }
        default:
            return measureValue(field, value);
    }
}

void addRecord(QJsonObject& object, const Record& record, const uint8* base) {
    for (const Field& field : record) {
        QJsonArray values;
        for (int i = 0; i < field.count; ++i) {
            if (field.kind == Kind::Group) {
                QJsonObject inner;
                addRecord(inner, *field.record, base + field.offset + i * field.width);
                values.append(inner);
            } else {
                values.append(fieldValue(field, base, i));
            }
        }
        object.insert(field.name, field.count == 1 ? values.first() : QJsonValue(values));
    }
}

QJsonValue linkValue(uint8 link) {
    return link == NULLNODE ? QJsonValue() : QJsonValue(link);
}

QJsonObject nodeObject(const Snapshot& snapshot, std::size_t index) {
    const virtualNode_t& node = snapshot.nodes[index];
    const uint8* const bytes = reinterpret_cast<const uint8*>(&node);
    QJsonObject object;
    const char* const kind = kindNames.find(node.nodetype);
    object.insert("kind", kind != nullptr ? QJsonValue(kind) : integer(node.nodetype));
    object.insert("index", static_cast<int>(index));
    if (node.nodetype == extNode) {
        addRecord(object, extensionRecord, bytes);
        return object;
    }
    object.insert("id", latin1(fieldText(node.ID, sizeof(node.ID))));
    object.insert("description", latin1(fieldText(node.Description, sizeof(node.Description))));
    object.insert("communication", latin1(communication(snapshot, node)));
    QJsonObject links;
    links.insert("son", linkValue(node.son));
    links.insert("next", linkValue(node.nxtBrother));
    links.insert("previous", linkValue(node.prvBrother));
    links.insert("ext", linkValue(node.ext));
    object.insert("links", links);
    addRecord(object, nodeRecord, bytes);
    if (const Record* const desc = descRecord(node.nodetype)) {
        const Field& field = *desc->begin();
        QJsonObject inner;
        addRecord(inner, *field.record, bytes + field.offset);
        object.insert("desc", inner);
    }
    return object;
}

// Everything beyond printable ASCII as escapes: a terminal may take control characters in any encoding.
std::string ascii(const QByteArray& json) {
    std::string out;
    for (const QChar c : QString::fromUtf8(json)) {
        const unsigned code = c.unicode();
        if ((code >= 0x20 && code < 0x7F) || code == '\n') {
            out += static_cast<char>(code);
        } else {
            out += format("\\u%04x", code);
        }
    }
    return out;
}

}  // namespace

std::string showJson(const Snapshot& snapshot, const std::vector<std::size_t>& nodes) {
    QJsonObject segment;
    segment.insert("key", static_cast<int>(snapshot.key));
    segment.insert("id", snapshot.id);
    segment.insert("size", integer(static_cast<std::int64_t>(snapshot.size)));
    segment.insert("attached", integer(static_cast<std::int64_t>(snapshot.attached)));
    QJsonObject units;
    for (const Field* const field : fieldsWithUnit()) {
        units.insert(field->name, field->unit->symbol);
    }
    QJsonArray array;
    for (const std::size_t index : nodes) {
        array.append(nodeObject(snapshot, index));
    }
    QJsonObject document;
    document.insert("layout", SHMVERSION);
    document.insert("time", integer(snapshot.now));
    document.insert("age", snapshot.age() < 0 ? QJsonValue() : integer(snapshot.age()));
    document.insert("segment", segment);
    document.insert("units", units);
    document.insert("nodes", array);
    return ascii(QJsonDocument(document).toJson(QJsonDocument::Indented));
}

}  // namespace ugwctl
