// What surrounds a whole card in the tests of its whole life: the other cabinets on the bus and the own module, all of
// them healthy.
#ifndef TESTS_UNIT_CARD_NEIGHBOURS_H
#define TESTS_UNIT_CARD_NEIGHBOURS_H

#include "unit/MLINK/ModuleLine.h"

namespace card {

using support::Bytes;
using support::Plant;

/// The cabinets at the other end of a bus: they answer whole queries with zeros of the right number, and tunnelled ones
/// with their module's answer.
class Cabinets {
  public:
    explicit Cabinets(support::FakeLine& line) : line_(line) {
        line.onWrite([this](const Bytes& bytes) { take(bytes); });
    }
    std::map<std::string, Bytes> answers;  ///< data to answer with, by command
    std::map<std::string, int> tunnelled;  ///< how often which command of a module came

  private:
    void take(const Bytes& asked) {
        if (asked.size() < 10 || asked[2] < 0xEA || asked[2] > 0xED || asked[2] == CABPAddr) {
            return;
        }
        const char command[] = {static_cast<char>(asked[3]), static_cast<char>(asked[4]), '\0'};
        Bytes params(asked.begin() + 7, asked.end() - 3);
        Bytes data;
        if (std::string(command) == "QT") {
            const std::string inner(params.begin() + 3, params.begin() + 5);
            ++tunnelled[inner];
            const Bytes answer =
                modline::frame(params[2], params[1], inner, Bytes(modline::Module::lengthOf(inner), '0'));
            data = {1, 0, 0, 0};  // the stamp
            data.insert(data.end(), answer.begin(), answer.end());
        } else if (answers.count(command) > 0) {
            data = answers[command];
        } else {
            data.resize(CABP_GetReplyDataLen(bus::query(asked[2], command, &params)));
        }
        line_.feed(bus::frame(asked[2], asked[1], command, data));
    }
    support::FakeLine& line_;
};

}  // namespace card

#endif
