#include "support/FakeLine.h"

#include <cerrno>
#include <climits>

#include "support/FakeLineState.h"
#include "support/Transcript.h"
#include "support/VirtualClock.h"

namespace support {

FakeLine::FakeLine(const std::string& path, int peerBaud) : state_(std::make_shared<State>(path, peerBaud)) {
    registerLine(state_);
}

FakeLine::~FakeLine() {
    unregisterLine(state_);
    const SignalSafeLock lock(state_->mutex);
    state_->onWrite = nullptr;
    for (auto& hook : state_->before) {
        hook = nullptr;
    }
    state_->expectations.clear();
}

void FakeLine::feed(const Bytes& bytes, std::int64_t afterUs) {
    const std::int64_t now = VirtualClock::now();
    const SignalSafeLock lock(state_->mutex);
    state_->feedFrom((now > state_->sentUntil ? now : state_->sentUntil) + afterUs, bytes);
}

void FakeLine::feedAt(std::int64_t instant, const Bytes& bytes) {
    const SignalSafeLock lock(state_->mutex);
    state_->feedFrom(instant, bytes);
}

void FakeLine::put(const Bytes& bytes) {
    const std::int64_t now = VirtualClock::now();
    const SignalSafeLock lock(state_->mutex);
    // Before anything that is still on its way.
    auto place = state_->input.begin();
    while (place != state_->input.end() && place->at <= now) {
        ++place;
    }
    for (const std::uint8_t byte : bytes) {
        place = state_->input.insert(place, {byte, now}) + 1;
    }
}

void FakeLine::receiveBreak() {
    const std::int64_t now = VirtualClock::now();
    const SignalSafeLock lock(state_->mutex);
    ++state_->breakCount;
    state_->dropArrived(now);
}

FakeLine::Expectation& FakeLine::Expectation::reply(const Bytes& bytes, std::int64_t afterUs) {
    const SignalSafeLock lock(state_->mutex);
    state_->expectations[index_].replies.push_back({bytes, afterUs});
    return *this;
}

FakeLine::Expectation& FakeLine::Expectation::then(std::function<void()> action) {
    const SignalSafeLock lock(state_->mutex);
    state_->expectations[index_].action = std::move(action);
    return *this;
}

FakeLine::Expectation FakeLine::expect(const Bytes& query) {
    const SignalSafeLock lock(state_->mutex);
    state_->isStrict = true;
    state_->expectations.push_back({query, {}, nullptr});
    return Expectation(state_, state_->expectations.size() - 1);
}

void FakeLine::onWrite(std::function<void(const Bytes&)> callback) {
    const SignalSafeLock lock(state_->mutex);
    state_->onWrite = std::move(callback);
}

testing::AssertionResult FakeLine::allDone() const {
    const SignalSafeLock lock(state_->mutex);
    const State& s = *state_;
    std::string faults;
    for (std::size_t i = s.expected; i < s.expectations.size(); ++i) {
        faults +=
            "  expected but not sent: " + hex(s.expectations[i].query.data(), s.expectations[i].query.size()) + "\n";
    }
    if (!s.partOfQuery.empty()) {
        faults += "  sent of the query in progress: " + hex(s.partOfQuery.data(), s.partOfQuery.size()) + "\n";
    }
    if (s.isStrict) {
        for (const Bytes& query : s.unexpected) {
            faults += "  sent but not expected: " + hex(query.data(), query.size()) + "\n";
        }
    }
    if (!s.input.empty()) {
        Bytes rest;
        for (const auto& byte : s.input) {
            rest.push_back(byte.value);
        }
        faults += "  fed but not fetched: " + hex(rest.data(), rest.size()) + "\n";
    }
    if (faults.empty()) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << s.path << ":\n" << faults;
}

void FakeLine::strict() {
    const SignalSafeLock lock(state_->mutex);
    state_->isStrict = true;
}

Bytes FakeLine::sent() const {
    const SignalSafeLock lock(state_->mutex);
    Bytes all;
    for (const Bytes& one : state_->writes) {
        all.insert(all.end(), one.begin(), one.end());
    }
    return all;
}

std::vector<Bytes> FakeLine::writes() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->writes;
}

void FakeLine::clearSent() {
    const SignalSafeLock lock(state_->mutex);
    state_->writes.clear();
}

void FakeLine::forget() {
    const SignalSafeLock lock(state_->mutex);
    state_->input.clear();
    state_->peerBusyUntil = 0;
    state_->sentUntil = 0;
    state_->writes.clear();
    state_->unexpected.clear();
    state_->partOfQuery.clear();
    state_->expectations.clear();
    state_->expected = 0;
    state_->isStrict = false;
    state_->faults.clear();
}

std::size_t FakeLine::waiting() const {
    const std::int64_t now = VirtualClock::now();
    const SignalSafeLock lock(state_->mutex);
    return state_->arrived(now);
}

std::size_t FakeLine::onTheWay() const {
    const std::int64_t now = VirtualClock::now();
    const SignalSafeLock lock(state_->mutex);
    return state_->input.size() - state_->arrived(now);
}

std::int64_t FakeLine::sentUntil() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->sentUntil;
}

std::size_t FakeLine::calls(LineCall call) const {
    const SignalSafeLock lock(state_->mutex);
    return state_->calls[static_cast<std::size_t>(call)];
}

std::size_t FakeLine::totalCalls() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->totalCalls;
}

std::size_t FakeLine::openCount() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->openCount;
}

int FakeLine::descriptor() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->descriptor;
}

int FakeLine::openFlags() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->openFlags;
}

int FakeLine::statusFlags() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->statusFlags ? state_->statusFlags->load() : 0;
}

std::size_t FakeLine::breaksSent() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->breaksSent;
}

std::size_t FakeLine::flushes() const {
    return calls(LineCall::Tcflush);
}

bool FakeLine::isControllingTerminal() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->controlling;
}

struct termios FakeLine::settings() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->settings;
}

void FakeLine::setSettings(const struct termios& settings) {
    const SignalSafeLock lock(state_->mutex);
    state_->settings = settings;
}

struct serial_rs485 FakeLine::rs485() const {
    const SignalSafeLock lock(state_->mutex);
    return state_->rs485;
}

void FakeLine::setRs485(const struct serial_rs485& record) {
    const SignalSafeLock lock(state_->mutex);
    state_->rs485 = record;
}

void FakeLine::setHasRs485(bool has) {
    const SignalSafeLock lock(state_->mutex);
    state_->hasRs485 = has;
}

void FakeLine::setBreakCount(int count) {
    const SignalSafeLock lock(state_->mutex);
    state_->breakCount = count;
}

void FakeLine::setHasBreakCounter(bool has) {
    const SignalSafeLock lock(state_->mutex);
    state_->hasBreakCounter = has;
}

void FakeLine::limitWrites(std::size_t bytes) {
    const SignalSafeLock lock(state_->mutex);
    state_->writeLimit = bytes;
}

void FakeLine::setOutputBuffer(std::size_t bytes) {
    const SignalSafeLock lock(state_->mutex);
    state_->outputLimit = bytes;
}

void FakeLine::openAbove(int descriptor) {
    const SignalSafeLock lock(state_->mutex);
    state_->lowestDescriptor = descriptor;
}

void FakeLine::fail(LineCall call, int error, std::size_t n, std::size_t times) {
    const SignalSafeLock lock(state_->mutex);
    state_->faults.push_back({false, call, 0, error, n, times});
}

void FakeLine::failIoctl(unsigned long request, int error, std::size_t n, std::size_t times) {
    const SignalSafeLock lock(state_->mutex);
    state_->faults.push_back({false, LineCall::Ioctl, request, error, n, times});
}

void FakeLine::failAny(int error, std::size_t n) {
    const SignalSafeLock lock(state_->mutex);
    state_->faults.push_back({true, LineCall::Open, 0, error, n, 1});
}

bool FakeLine::hasFaultsLeft() const {
    const SignalSafeLock lock(state_->mutex);
    return !state_->faults.empty();
}

void FakeLine::clearFaults() {
    const SignalSafeLock lock(state_->mutex);
    state_->faults.clear();
}

void FakeLine::before(LineCall call, std::function<void()> action) {
    const SignalSafeLock lock(state_->mutex);
    state_->before[static_cast<std::size_t>(call)] = std::move(action);
}

void FakeLine::hangUp() {
    const SignalSafeLock lock(state_->mutex);
    state_->present = false;
    state_->input.clear();
    ++state_->generation;
}

void FakeLine::plugIn() {
    const SignalSafeLock lock(state_->mutex);
    state_->present = true;
}

}  // namespace support
