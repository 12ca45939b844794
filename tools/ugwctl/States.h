// The 176 status bits of a module in words.
#ifndef TOOLS_UGWCTL_STATES_H
#define TOOLS_UGWCTL_STATES_H

#include <string>
#include <vector>

#include "Common/VirtualUPSTypes.h"

namespace ugwctl {

/// Classes of status bits, worst first.
enum class StateClass : int { Lock, Fault, Anomaly, Warning, Command, Event };
constexpr int STATE_CLASSES = 6;
/// "lock", "fault", ...
const char* stateClassName(StateClass stateClass);

struct State {
    int bit;  // 0 to 175
    StateClass stateClass;
    std::string tag;   // such as "A08"; empty for an event
    std::string text;  // such as "MAINS UNDERVOLTAGE L1"; empty where there is none
    const char* name;  // of the record, such as "MainsUnderVoltageL1"
};

/// The bits that are set, worst class first, by number within a class.
std::vector<State> setStates(const char (&states)[NUMRCBYTE]);
/// The bits of a module's node.
std::vector<State> statesOf(const virtualNode_t& module);
/// One line for people: "[A08] MAINS UNDERVOLTAGE L1".
std::string stateLine(const State& state);

/// Names of the bits in the record, by number.
extern const char* const stateNames[NUMRCBIT];

}  // namespace ugwctl

#endif
