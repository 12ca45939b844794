#include "tools/ugwctl/States.h"

#include <algorithm>
#include <cstring>

#include "MLINK/MLINK.h"
#include "tools/ugwctl/Text.h"

namespace ugwctl {
namespace {

// A tag such as "[A08]" stands before the text of a condition.
constexpr std::size_t TAG_LENGTH = 5;
constexpr struct {
    char letter;
    StateClass stateClass;
    const char* name;
} classes[STATE_CLASSES] = {{'L', StateClass::Lock, "lock"},       {'F', StateClass::Fault, "fault"},
                            {'A', StateClass::Anomaly, "anomaly"}, {'W', StateClass::Warning, "warning"},
                            {'C', StateClass::Command, "command"}, {'\0', StateClass::Event, "event"}};

State describe(int bit) {
    const char* const words = statusDetailString[bit];
    const std::string text = fieldText(words, std::strlen(words));
    State state = {bit, StateClass::Event, "", text, stateNames[bit]};
    if (bit < NUMSTATUSBIT) {
        for (const auto& known : classes) {
            if (known.letter == text[1]) {
                state.stateClass = known.stateClass;
            }
        }
        state.tag = text.substr(1, TAG_LENGTH - 2);
        state.text = text.substr(TAG_LENGTH);
    }
    return state;
}

}  // namespace

const char* stateClassName(StateClass stateClass) {
    return classes[static_cast<int>(stateClass)].name;
}

std::vector<State> setStates(const char (&states)[NUMRCBYTE]) {
    std::vector<State> set;
    for (int bit = 0; bit < NUMRCBIT; ++bit) {
        if ((static_cast<uint8>(states[bit / 8]) >> bit % 8 & 1) != 0) {
            set.push_back(describe(bit));
        }
    }
    std::stable_sort(set.begin(), set.end(), [](const State& a, const State& b) {
        return a.stateClass != b.stateClass ? a.stateClass < b.stateClass : a.tag < b.tag;
    });
    return set;
}

std::vector<State> statesOf(const virtualNode_t& module) {
    char states[NUMRCBYTE];
    std::memcpy(states, module.desc.module.statusDetail.states, sizeof(states));
    return setStates(states);
}

std::string stateLine(const State& state) {
    const std::string words = state.text.empty() ? std::string(state.name) : state.text;
    return state.tag.empty() ? words : "[" + state.tag + "] " + words;
}

}  // namespace ugwctl
