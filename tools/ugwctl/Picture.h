// The live view as lines of styled text, wherever they are drawn.
#ifndef TOOLS_UGWCTL_PICTURE_H
#define TOOLS_UGWCTL_PICTURE_H

#include <string>
#include <vector>

#include "tools/ugwctl/Segment.h"

namespace ugwctl {

enum class Style { Plain, Bold, Good, Notice, Alarm };

struct Span {
    Style style;
    std::string text;  // printable ASCII
};
using Line = std::vector<Span>;
using Picture = std::vector<Line>;

/// The plant in `width` columns (at least 80 are used): the system, the cabinets side by side, the alarms. `problem`
/// is why the data can't be trusted, empty if they can.
Picture drawPlant(const Snapshot& snapshot, const std::string& problem, int width);
/// The same lines as plain text.
std::string plainText(const Picture& picture);

}  // namespace ugwctl

#endif
