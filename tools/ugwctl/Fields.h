// What the records hold, as tables: one description of a field serves text, JSON and metrics.
#ifndef TOOLS_UGWCTL_FIELDS_H
#define TOOLS_UGWCTL_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/VirtualUPSTypes.h"

namespace ugwctl {

/// A unit: a stored number times `scale` is shown with `decimals` and `symbol`; a shown value times `metricScale` is in
/// the base unit that metrics use, named by `metricName`.
struct Unit {
    const char* symbol;
    double scale;
    int decimals;
    const char* metricName;
    double metricScale;
};

/// A named value, or a named bit, counted from the least significant one.
struct Name {
    int value;
    const char* name;
};

struct Names {
    const Name* first;
    std::size_t count;
    const Name* begin() const { return first; }
    const Name* end() const { return first + count; }
    /// Name of a value, null for one that isn't listed.
    const char* find(std::int64_t value) const;
};

enum class Kind : uint8 {
    Unsigned,
    Signed,
    Text,    // ends within its width, or doesn't
    Bytes,   // reserved field
    Time,    // time32_t, 0 never
    Choice,  // one of `names`
    Flags,   // any of `names`
    States,  // the 176 status bits of a module
    Group    // `record` inside
};

struct Record;

/// A field of a record. `count` of them lie side by side, `width` bytes each; phases where there are three measures.
struct Field {
    const char* name;
    uint16 offset;
    uint8 width;
    uint8 count;
    Kind kind;
    const Unit* unit;      // of a number, null where it isn't known
    const char* metric;    // name without "ugw_" and unit, null for none
    Names names;           // of a choice or of flags
    const Record* record;  // of a group
    std::int64_t none;     // stored number that stands for "no value", below 0 where there is none
    uint8 shift;           // the number begins at this bit
    uint32 mask;           // and has these bits, before the shift back
};

struct Record {
    const Field* fields;
    std::size_t count;
    const Field* begin() const { return fields; }
    const Field* end() const { return fields + count; }
};

/// What every node holds, and what a kind of node holds beyond that, at offsets from the node's beginning. Null for a
/// kind without a record of its own.
extern const Record nodeRecord;
const Record* descRecord(uint8 nodetype);
/// Fields of the extension node.
extern const Record extensionRecord;

/// States of an element (alarmStatus_t), commands of a panel (cmdType_t), kinds of node (node_t) in words.
extern const Names elementNames;
extern const Names commandNames;
extern const Names kindNames;
/// All units that a field may have, for the description of a document.
std::vector<const Field*> fieldsWithUnit();

/// Number number `index` of a field that lies in a record at `base`.
std::int64_t number(const Field& field, const uint8* base, int index = 0);
/// True if that number stands for "no value".
bool isNone(const Field& field, std::int64_t value);
/// That number in its unit.
double scaled(const Field& field, std::int64_t value);
/// The same as text, without the unit's symbol; "-" for no value.
std::string scaledText(const Field& field, std::int64_t value);
/// Names of the bits that are set; a bit without a name appears as "bit N".
std::vector<std::string> setBits(const Field& field, std::int64_t value);

}  // namespace ugwctl

#endif
