#include "tools/ugwctl/Fields.h"

#include <cstring>

#include "tools/ugwctl/Text.h"

namespace ugwctl {

const char* Names::find(std::int64_t value) const {
    for (const Name& name : *this) {
        if (name.value == value) {
            return name.name;
        }
    }
    return nullptr;
}

std::int64_t number(const Field& field, const uint8* base, int index) {
    std::uint64_t raw = 0;
    // Little-endian, at whatever address the field has.
    std::memcpy(&raw, base + field.offset + field.width * index, field.width < 8 ? field.width : 8);
    if (field.kind == Kind::Signed || field.kind == Kind::Time) {
        const int unused = 64 - 8 * field.width;
        return static_cast<std::int64_t>(raw << unused) >> unused;
    }
    return static_cast<std::int64_t>((raw & field.mask) >> field.shift);
}

bool isNone(const Field& field, std::int64_t value) {
    return field.none >= 0 && value == field.none;
}

double scaled(const Field& field, std::int64_t value) {
    return static_cast<double>(value) * (field.unit != nullptr ? field.unit->scale : 1.0);
}

std::string scaledText(const Field& field, std::int64_t value) {
    if (isNone(field, value)) {
        return "-";
    }
    return format("%.*f", field.unit != nullptr ? field.unit->decimals : 0, scaled(field, value));
}

std::vector<std::string> setBits(const Field& field, std::int64_t value) {
    std::vector<std::string> names;
    for (int bit = 0; bit < 8 * field.width; ++bit) {
        if ((value >> bit & 1) != 0) {
            const char* const name = field.names.find(bit);
            names.push_back(name != nullptr ? name : format("bit %d", bit));
        }
    }
    return names;
}

namespace {

void collectUnits(const Record& record, std::vector<const Field*>& found) {
    for (const Field& field : record) {
        if (field.kind == Kind::Group) {
            collectUnits(*field.record, found);
        } else if (field.unit != nullptr) {
            bool isNew = true;
            for (const Field* known : found) {
                isNew = isNew && std::strcmp(known->name, field.name) != 0;
            }
            if (isNew) {
                found.push_back(&field);
            }
        }
    }
}

}  // namespace

std::vector<const Field*> fieldsWithUnit() {
    std::vector<const Field*> found;
    collectUnits(nodeRecord, found);
    for (const uint8 kind : {sysNode, upsBoxNode, battBoxNode, moduleNode}) {
        collectUnits(*descRecord(kind), found);
    }
    return found;
}

}  // namespace ugwctl
