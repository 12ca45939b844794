// A whole card that lives as long as the process and is put back before each input, since building one takes longer
// than most inputs run.
#ifndef TESTS_FUZZ_CARD_H
#define TESTS_FUZZ_CARD_H

#include <set>
#include <string>

#include "fuzz/Harness.h"
#include "support/Plant.h"

namespace fuzz {

class Card {
  public:
    /// Puts back to the state in which the plant is now.
    explicit Card(support::Plant& plant, bool isMaster);

    /// As at construction, at the beginning of virtual time, both lines open and quiet. Virtual time ends the process
    /// at `limitSeconds`.
    void reset(std::int64_t limitSeconds);

    /// Index of a node in the tree.
    static constexpr std::size_t ROOT = 0;
    std::size_t boxNode(int cabinet) const;
    std::size_t moduleNode(int cabinet) const;
    std::size_t nodeCount() const { return tree_.size() / sizeof(virtualNode_t); }

    /// All nodes as they are now.
    Bytes tree() const;
    /// That only the nodes in `allowed` differ from `before`.
    void requireOnlyNodes(const Bytes& before, const std::set<std::size_t>& allowed, const char* who) const;
    /// The links and kinds of the nodes, which nobody changes.
    void requireSoundTree() const;
    /// Queues point to queries of their own only, and their buffers are there.
    void requireSoundQueues() const;
    /// Nobody has kept a lock.
    void requireFreeLocks() const;
    /// Everything sent on the bus is a sound frame of this card.
    void requireSoundBusFrames() const;
    /// Empties the queues of what was asked for.
    void dropAsync();

    support::Plant& plant;

  private:
    bool isMaster_;
    Bytes tree_;
    Bytes boxes_;
    Bytes modules_;
    std::uint8_t sameBuild_;
    int notOnLoad_;
};

}  // namespace fuzz

#endif
