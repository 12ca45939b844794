// Random operations on the queues, against a model of a few lines: whatever happens, no queue holds an element that
// isn't owned, nothing is owned twice, and what the link's thread has in its hands can be read.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>

#include "Queries.h"
#include "support/LogCapture.h"
#include "support/Seed.h"

namespace {

constexpr int NONE = -1;
constexpr int ELEMENTS = 400;  // per life of a manager
constexpr int LIVES = 100;

// An element is told by the health record that its query names.
commStatus_t tags[ELEMENTS];

int idOf(const QCMgr* element) {
    return element == nullptr ? NONE : static_cast<int>(element->pCommStatus - tags);
}

struct Element {
    uint8 dest;
    std::string commands;
    Params params;

    bool sameCommand(const Element& other) const { return dest == other.dest && commands == other.commands; }
    bool beginsLike(const Element& query) const {
        return params.size() >= query.params.size() &&
               std::equal(query.params.begin(), query.params.end(), params.begin());
    }
    uint32 key() const {
        uint32 sum = 0;
        for (uint8 byte : params) {
            sum += byte;
        }
        return uint32{dest} << 24 | static_cast<uint32>(commands[0]) << 16 | static_cast<uint32>(commands[1]) << 8 |
               (sum & 0xFF);
    }
};

struct Delayed {
    int id;
    QueueType type;
    uint32 key;
};

class Model {
  public:
    std::map<int, Element> all;  // whatever was ever made
    std::set<int> owned;
    std::map<uint32, int> fixed;
    std::map<uint32, int>::iterator walk = fixed.end();
    std::deque<int> async;
    std::deque<Delayed> delayed;
    int inFlight = NONE;

    bool isHeld(int id) const {
        return std::any_of(fixed.begin(), fixed.end(), [id](const auto& entry) { return entry.second == id; }) ||
               std::count(async.begin(), async.end(), id) > 0 ||
               std::any_of(delayed.begin(), delayed.end(), [id](const Delayed& entry) { return entry.id == id; });
    }
    void drop(int id) {
        owned.erase(id);
        if (inFlight == id) {
            inFlight = NONE;
        }
    }
    int add(int id) {
        owned.insert(id);
        async.push_back(id);
        return SUCC;
    }
    int registerElem(int id) {
        const auto present = fixed.find(all[id].key());
        if (present != fixed.end()) {
            const int old = present->second;
            fixed.erase(present);
            const std::set<int> before = owned;
            for (int other : before) {
                const bool equal =
                    all[other].sameCommand(all[old]) && all[old].params.empty() && all[other].params.empty();
                if (equal && !isHeld(other)) {
                    drop(other);
                }
            }
            drop(old);
        }
        owned.insert(id);
        fixed[all[id].key()] = id;
        walk = fixed.begin();
        return SUCC;
    }
    int deRegister(const Element& query) {
        const auto present = fixed.find(query.key());
        if (present != fixed.end()) {
            const int id = present->second;
            if (id == inFlight) {
                return FAIL;
            }
            fixed.erase(present);
            drop(id);
            walk = fixed.begin();
            return SUCC;
        }
        return isDelayed(query, FixQueue) ? removeDelayed(query, FixQueue) : FAIL;
    }
    bool isDelayed(const Element& query, QueueType type) {
        return std::any_of(delayed.begin(), delayed.end(), [&](const Delayed& entry) {
            return entry.type == type && all[entry.id].sameCommand(query) && all[entry.id].beginsLike(query);
        });
    }
    int removeDelayed(const Element& query, QueueType type) {
        int ret = FAIL;
        std::deque<Delayed> left;
        for (const Delayed& entry : delayed) {
            if (entry.type == type && all[entry.id].sameCommand(query)) {
                drop(entry.id);
                ret = SUCC;
            } else {
                left.push_back(entry);
            }
        }
        delayed = left;
        return ret;
    }
    int removeAsync(const Element& query) {
        int ret = FAIL;
        std::deque<int> left;
        for (int id : async) {
            if (all[id].sameCommand(query) && !all[id].beginsLike(query)) {
                drop(id);
                ret = SUCC;
            } else {
                left.push_back(id);
            }
        }
        async = left;
        removeDelayed(query, AsyncQueue);
        return ret;
    }
    bool isPresent(const Element& query) {
        return isDelayed(query, AsyncQueue) || std::any_of(async.begin(), async.end(), [&](int id) {
                   return all[id].sameCommand(query) && all[id].beginsLike(query);
               });
    }
    int head() {
        if (async.empty()) {
            return FAIL;
        }
        drop(async.front());
        async.pop_front();
        return SUCC;
    }
    int peekFix() { return inFlight = walk == fixed.end() ? NONE : walk->second; }
    int peekAsync() { return inFlight = async.empty() ? NONE : async.front(); }
    void restore() {
        if (delayed.empty()) {
            return;
        }
        const Delayed entry = delayed.front();
        delayed.pop_front();
        if (entry.type == AsyncQueue) {
            async.push_back(entry.id);
        } else {
            fixed[entry.key] = entry.id;
        }
    }
};

class Life {
  public:
    explicit Life(std::mt19937& random) : random_(random) {}

    void turn() {
        switch (pick(12)) {
            case 0:
            case 1:
                if (room()) {
                    const int id = made();
                    EXPECT_EQ(queues_.addFixed(queryOf(id)), model_.registerElem(id));
                }
                break;
            case 2:
            case 3:
                if (room()) {
                    const int id = made();
                    EXPECT_EQ(queues_.addAsync(queryOf(id)), model_.add(id));
                }
                break;
            case 4: {
                const Element query = anything();
                EXPECT_EQ(queues_.removeFixed(queryOf(query)), model_.deRegister(query));
                break;
            }
            case 5: {
                const Element query = anything();
                EXPECT_EQ(queues_.removeAsync(queryOf(query)), model_.removeAsync(query));
                break;
            }
            case 6: {
                const Element query = anything();
                Description description(query.dest, query.commands.c_str(), query.params);
                EXPECT_EQ(queues_.isPresentInAsyncQC(*description), model_.isPresent(query));
                break;
            }
            case 7:
                hands_ = queues_.peekFix();
                EXPECT_EQ(idOf(hands_), model_.peekFix());
                break;
            case 8:
                hands_ = queues_.peekAsync();
                EXPECT_EQ(idOf(hands_), model_.peekAsync());
                break;
            case 9:
                EXPECT_EQ(queues_.headAsyncQC(), model_.head());
                break;
            case 10:
                walkOn();
                break;
            default:
                delayOrRestore();
                break;
        }
    }

    void compare() {
        std::set<const QCMgr*> owned;
        std::set<int> ids;
        for (const QCMgr& element : queues_.Queries) {
            owned.insert(&element);
            EXPECT_TRUE(ids.insert(idOf(&element)).second);
            const Element& made = model_.all[idOf(&element)];
            EXPECT_EQ(element.QC.ParamLen, made.params.size());
        }
        EXPECT_EQ(ids, model_.owned);
        // Addresses first: what isn't owned must not even be looked at.
        const auto isOwned = [&owned](const QCMgr* element) { return owned.count(element) > 0; };
        for (const auto& entry : queues_.FixQuery) {
            ASSERT_TRUE(isOwned(entry.second));
        }
        for (const QCMgr* element : queues_.AsyncQC) {
            ASSERT_TRUE(isOwned(element));
        }
        for (const QCDelayed_t& entry : queues_.DelayedQC) {
            ASSERT_TRUE(isOwned(entry.QCwrong));
        }
        ASSERT_TRUE(queues_.currQC == nullptr || isOwned(queues_.currQC));

        std::map<uint32, int> fixed;
        for (const auto& entry : queues_.FixQuery) {
            fixed[entry.first] = idOf(entry.second);
        }
        EXPECT_EQ(fixed, model_.fixed);
        std::deque<int> async;
        for (const QCMgr* element : queues_.AsyncQC) {
            async.push_back(idOf(element));
        }
        EXPECT_EQ(async, model_.async);
        ASSERT_EQ(static_cast<std::size_t>(queues_.DelayedQC.size()), model_.delayed.size());
        for (int i = 0; i < static_cast<int>(queues_.DelayedQC.size()); ++i) {
            EXPECT_EQ(idOf(queues_.DelayedQC.at(i).QCwrong), model_.delayed[static_cast<std::size_t>(i)].id);
        }
        EXPECT_EQ(idOf(queues_.currQC), model_.inFlight);
        ASSERT_EQ(queues_.CurrFixQC == queues_.FixQuery.end(), model_.walk == model_.fixed.end());
        if (model_.walk != model_.fixed.end()) {
            EXPECT_EQ(queues_.CurrFixQC->first, model_.walk->first);
        }
        readHands();
    }

  private:
    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }
    bool room() const { return next_ < ELEMENTS; }

    // Few different ones, so that they meet.
    Element anything() {
        Element element = {static_cast<uint8>(0xEB + pick(2)), pick(2) == 0 ? "BN" : "SC", {}};
        for (unsigned n = pick(4); n > 0; --n) {
            element.params.push_back(static_cast<uint8>(1 + pick(2)));
        }
        return element;
    }
    int made() {
        model_.all[next_] = anything();
        return next_++;
    }
    static QCMgr queryOf(const Element& element) {
        return query(element.dest, element.commands.c_str(), element.params);
    }
    QCMgr queryOf(int id) {
        const Element& element = model_.all[id];
        return query(element.dest, element.commands.c_str(), element.params, &tags[id]);
    }
    void walkOn() {
        if (queues_.fixRoundIsOver()) {
            queues_.restartFixRound();
            model_.walk = model_.fixed.begin();
        } else {
            queues_.advanceFixQC();
            ++model_.walk;
        }
    }
    void delayOrRestore() {
        if (pick(2) == 0) {
            queues_.manageDelayedQC();
            model_.restore();
        } else if (pick(2) == 0 && !model_.async.empty()) {
            queues_.delayAsync();
            model_.delayed.push_back({model_.async.front(), AsyncQueue, 0});
            model_.async.pop_front();
        } else if (!model_.fixed.empty()) {
            const auto chosen = std::next(model_.fixed.begin(), pick(static_cast<unsigned>(model_.fixed.size())));
            queues_.delayFixed(chosen->first);
            model_.delayed.push_back({chosen->second, FixQueue, chosen->first});
            model_.fixed.erase(chosen);
            model_.walk = model_.fixed.begin();
        }
    }
    // As the link's thread does between two peeks, whatever has become of the element meanwhile.
    void readHands() {
        if (hands_ != nullptr) {
            const Element& element = model_.all[idOf(hands_)];
            ASSERT_EQ(hands_->QC.ParamLen, element.params.size());
            EXPECT_TRUE(std::equal(element.params.begin(), element.params.end(), hands_->pckQuery + 2));
            hands_->pckReply[0] = 1;
        }
    }

    std::mt19937& random_;
    OpenQueues queues_;
    Model model_;
    QCMgr* hands_ = nullptr;
    int next_ = 0;
};

TEST(QueuesModel, NoQueueEverHoldsAnElementThatIsNotOwned) {
    std::mt19937 random(support::seed());
    for (int life = 0; life < LIVES; ++life) {
        const support::LogCapture log;
        Life queues(random);
        for (int turn = 0; turn < ELEMENTS; ++turn) {
            queues.turn();
            queues.compare();
            ASSERT_FALSE(testing::Test::HasFailure()) << "life " << life << " turn " << turn;
        }
    }
}

}  // namespace
