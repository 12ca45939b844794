#include "Common/VirtualUPSUtility.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// A tree of the cabinets given by letter, each with its module, in an array of its exact size.
class Tree {
  public:
    explicit Tree(const std::string& letters) : nodes_(2 + 2 * letters.size()) {
        array_.reset(new virtualNode_t[nodes_]);
        std::memset(static_cast<void*>(array_.get()), 0, nodes_ * sizeof(virtualNode_t));
        for (std::size_t i = 0; i < nodes_; ++i) {
            virtualNode_t& node = array_[i];
            node.idx = static_cast<uint8>(i);
            node.nxtBrother = node.prvBrother = node.son = node.ext = NULLNODE;
        }
        const std::size_t n = letters.size();
        std::strcpy(array_[0].ID, "SA");
        array_[0].ext = 1;
        if (n > 0) {
            array_[0].son = 2;
        }
        for (std::size_t i = 0; i < n; ++i) {
            virtualNode_t& box = at(2 + i);
            std::snprintf(box.ID, sizeof(box.ID), "SA.B%c", letters[i]);
            box.son = static_cast<uint8>(2 + n + i);
            if (i + 1 < n) {
                box.nxtBrother = static_cast<uint8>(3 + i);
                at(3 + i).prvBrother = box.idx;
            }
            std::snprintf(at(2 + n + i).ID, sizeof(box.ID), "SA.B%c.M1", letters[i]);
        }
    }
    virtualNode_t& at(std::size_t index) { return array_[index]; }
    virtualUPS_t root() { return array_.get(); }
    int count() const { return static_cast<int>(nodes_); }
    /// Index of what the search finds, -1 for null.
    int find(const char* path) { return indexOf(search(root(), path)); }
    int findBounded(const char* path) { return indexOf(search(root(), path, count())); }

  private:
    int indexOf(const virtualNode_t* node) { return node == nullptr ? -1 : static_cast<int>(node - root()); }
    std::size_t nodes_;
    std::unique_ptr<virtualNode_t[]> array_;
};

TEST(TreeSearch, FindsCabinetsAndModules) {
    Tree tree("ABCD");
    const char letters[] = "ABCD";
    for (int i = 0; i < 4; ++i) {
        const std::string box = std::string("SA.B") + letters[i];
        EXPECT_EQ(tree.find(box.c_str()), 2 + i);
        EXPECT_EQ(tree.find((box + ".M1").c_str()), 6 + i);
        EXPECT_EQ(tree.findBounded((box + ".M1").c_str()), 6 + i);
    }
}

TEST(TreeSearch, GapInTheLettersIsNoGapInTheTree) {
    Tree tree("AC");
    EXPECT_EQ(tree.find("SA.BA"), 2);
    EXPECT_EQ(tree.find("SA.BC"), 3);
    EXPECT_EQ(tree.find("SA.BC.M1"), 5);
    EXPECT_EQ(tree.find("SA.BB"), -1);
    EXPECT_EQ(tree.find("SA.BB.M1"), -1);
    EXPECT_EQ(tree.find("SA.BD"), -1);
}

TEST(TreeSearch, PathOfAnotherCardIsUnknown) {
    Tree tree("AB");
    EXPECT_EQ(tree.find("SB.BA"), -1);
    EXPECT_EQ(tree.find("TA.BA"), -1);
}

TEST(TreeSearch, ModuleThatIsNotThereIsNotFound) {
    Tree tree("AB");
    EXPECT_EQ(tree.find("SA.BA.M2"), -1);
    EXPECT_EQ(tree.find("SA.BA.K1"), -1);
}

TEST(TreeSearch, ModulesWithBrothersAreWalked) {
    Tree tree("AB");
    std::strcpy(tree.at(5).ID, "SA.BA.M2");
    tree.at(4).nxtBrother = 5;
    EXPECT_EQ(tree.find("SA.BA.M2"), 5);
    EXPECT_EQ(tree.find("SA.BA.M3"), -1);
}

TEST(TreeSearch, WithoutCabinetsOrModulesFindsNothing) {
    Tree bare("");
    EXPECT_EQ(bare.find("SA.BA"), -1);
    Tree tree("A");
    tree.at(2).son = NULLNODE;
    EXPECT_EQ(tree.find("SA.BA"), 2);
    EXPECT_EQ(tree.find("SA.BA.M1"), -1);
}

// The separators take no part in it.
TEST(TreeSearch, ComparesTheNamesOnly) {
    Tree tree("A");
    EXPECT_EQ(tree.find("SA-BA"), 2);
    EXPECT_EQ(tree.find("SA-BA-M1"), 3);
    EXPECT_EQ(tree.find("SA.BA.M1x"), 3);
}

// Each path on the heap in its exact size, so that reading beyond it is seen.
TEST(TreeSearch, ShortPathsFindNothing) {
    Tree tree("A");
    const std::string path = "SA.BA.M1";
    for (std::size_t length = 0; length < path.size(); ++length) {
        const std::unique_ptr<char[]> text(new char[length + 1]);
        std::memcpy(text.get(), path.data(), length);
        text[length] = '\0';
        EXPECT_EQ(tree.find(text.get()), length == 5 ? 2 : -1) << length;
    }
    EXPECT_EQ(search(tree.root(), nullptr), nullptr);
}

TEST(TreeSearch, WithoutATreeFindsNothing) {
    EXPECT_EQ(search(nullptr, "SA.BA"), nullptr);
    EXPECT_EQ(search(nullptr, nullptr), nullptr);
}

TEST(TreeSearch, FollowsNoLinkBeyondTheKnownNodes) {
    Tree tree("AB");
    tree.at(2).son = static_cast<uint8>(tree.count());
    EXPECT_EQ(tree.findBounded("SA.BA.M1"), -1);
    tree.at(2).nxtBrother = 254;
    EXPECT_EQ(tree.findBounded("SA.BB"), -1);
    tree.at(0).son = 254;
    EXPECT_EQ(tree.findBounded("SA.BA"), -1);
}

// Other processes can write to the tree.
TEST(TreeSearch, EndsOnBrothersInACircle) {
    Tree tree("AB");
    tree.at(3).nxtBrother = 2;
    EXPECT_EQ(tree.find("SA.BC"), -1);
    tree.at(5).nxtBrother = 5;
    EXPECT_EQ(tree.find("SA.BB.M2"), -1);
    EXPECT_EQ(tree.findBounded("SA.BB.M2"), -1);
}

}  // namespace
