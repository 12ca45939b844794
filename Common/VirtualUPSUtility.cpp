#define TRACELEVEL_DEBUG
#include "Common/VirtualUPSUtility.h"

#include <cstring>

namespace {

// Places of the two characters of a path that name a system, a cabinet, a module.
constexpr std::size_t SYS_AT = 0;
constexpr std::size_t BOX_AT = 3;
constexpr std::size_t MODULE_AT = 6;
constexpr std::size_t NAME_LEN = 2;
constexpr std::size_t BOX_PATH_LEN = BOX_AT + NAME_LEN;
constexpr std::size_t MODULE_PATH_LEN = MODULE_AT + NAME_LEN;

bool sameName(const virtualNode_t& node, const char* path, std::size_t at) {
    return std::memcmp(node.ID + at, path + at, NAME_LEN) == 0;
}

// Looks through a node and its next brothers. Other processes can write to the tree: brothers in a circle end the walk
// too, since there can't be more of them than nodes.
virtualNode_t* searchBrothers(virtualUPS_t virtualUPS, int first, const char* path, std::size_t at, int nodes) {
    int link = first;
    for (int i = 0; i < nodes && link < nodes; ++i) {
        virtualNode_t* const node = &virtualUPS[link];
        if (sameName(*node, path, at)) {
            return node;
        }
        link = node->nxtBrother;
    }
    return nullptr;
}

}  // namespace

virtualNode_t* search(virtualUPS_t virtualUPS, const char* searchID, int nodes) {
    const std::size_t length = searchID == nullptr ? 0 : std::strlen(searchID);
    if (virtualUPS == nullptr || length < BOX_PATH_LEN || !sameName(*virtualUPS, searchID, SYS_AT)) {
        return nullptr;
    }
    virtualNode_t* const box = searchBrothers(virtualUPS, virtualUPS->son, searchID, BOX_AT, nodes);
    if (box == nullptr || length == BOX_PATH_LEN) {
        return box;
    }
    if (length < MODULE_PATH_LEN) {
        return nullptr;
    }
    return searchBrothers(virtualUPS, box->son, searchID, MODULE_AT, nodes);
}
