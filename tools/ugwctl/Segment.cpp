#include "tools/ugwctl/Segment.h"

#include <sys/shm.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "tools/ugwctl/Failure.h"
#include "tools/ugwctl/Text.h"

namespace ugwctl {
namespace {

constexpr int PROJECT = 1;                 // of the key, as the gateway has it
constexpr const char KEY_FILE[] = "/UGW";  // in its working directory
constexpr std::size_t NODE = sizeof(virtualNode_t);
constexpr std::size_t MIN_NODES = 4;  // root, extension, a cabinet and its module
constexpr std::size_t MAX_NODES = 2 + 2 * MAXUPSBOX;
constexpr int EXTENSION = 1;              // index of the extension node
constexpr int COPIES = 100;               // of one node, until two in a row agree
constexpr long BETWEEN_COPIES = 1000000;  // ns

// Places of the letters in an ID: "SA.BB.M1".
constexpr std::size_t BOX_AT = 3;
constexpr std::size_t BOX_LETTER_AT = 4;

void pause(long ns) {
    struct timespec left;
    left.tv_sec = 0;
    left.tv_nsec = ns;
    nanosleep(&left, nullptr);
}

/// An attached segment; detached at its end.
class Attached {
  public:
    Attached(int id, bool readOnly) : address_(shmat(id, nullptr, readOnly ? SHM_RDONLY : 0)) {
        if (address_ == reinterpret_cast<void*>(-1)) {
            throw Failure(ExitStatus::NoSegment, format("segment %d can't be attached for %s: %s", id,
                                                        readOnly ? "reading" : "writing", std::strerror(errno)));
        }
    }
    ~Attached() { shmdt(address_); }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;
    volatile uint8* bytes() const { return static_cast<volatile uint8*>(address_); }

  private:
    void* address_;
};

void copyOut(uint8* to, const volatile uint8* from, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        to[i] = from[i];
    }
}

// Two copies that agree, a while apart, so that one that was half written shows.
virtualNode_t copyNode(const volatile uint8* at, std::size_t index) {
    uint8 first[NODE];
    uint8 second[NODE];
    copyOut(first, at + index * NODE, NODE);
    for (int copy = 1; copy < COPIES; ++copy) {
        pause(BETWEEN_COPIES);
        copyOut(second, at + index * NODE, NODE);
        if (std::memcmp(first, second, NODE) == 0) {
            virtualNode_t node;
            std::memcpy(static_cast<void*>(&node), first, NODE);
            return node;
        }
        std::memcpy(first, second, NODE);
    }
    throw Failure(ExitStatus::Torn,
                  format("node %zu changes without pause: %d copies, no two in a row agree", index, COPIES));
}

[[noreturn]] void notATree(const std::string& why) {
    throw Failure(ExitStatus::BadSegment, "the segment doesn't hold a tree of layout " SHMVERSION ": " + why);
}

// Nodes of the tree, by its links; the rest of a larger segment is an older plant's.
std::size_t countNodes(const std::vector<virtualNode_t>& nodes) {
    const virtualNode_t& root = nodes[0];
    if (root.nodetype != sysNode || root.idx != 0 || root.ID[0] != 'S' || root.ext != EXTENSION ||
        nodes[EXTENSION].nodetype != extNode) {
        notATree("node 0 isn't its root");
    }
    std::size_t cabinets = 0;
    std::size_t modules = 0;
    std::size_t end = EXTENSION + 1;
    for (std::size_t link = root.son; link != NULLNODE; link = nodes[link].nxtBrother) {
        if (link >= nodes.size()) {
            notATree(format("node %zu lies outside of its %zu nodes", link, nodes.size()));
        }
        const virtualNode_t& cabinet = nodes[link];
        if (cabinet.nodetype != upsBoxNode || cabinet.idx != link || cabinetOf(cabinet) < 0 || ++cabinets > MAXUPSBOX) {
            notATree(format("node %zu isn't a cabinet", link));
        }
        end = MAX(end, link + 1);
        if (cabinet.son == NULLNODE) {
            continue;
        }
        // A cabinet without a module may point at another's, or past the end.
        if (cabinet.son < nodes.size() && std::memcmp(nodes[cabinet.son].ID, cabinet.ID, BOX_LETTER_AT + 1) == 0 &&
            nodes[cabinet.son].nodetype == moduleNode) {
            ++modules;
            end = MAX(end, static_cast<std::size_t>(cabinet.son) + 1);
        } else if (cabinet.son >= nodes.size() && nodes.size() < MAX_NODES) {
            notATree(format("node %d lies outside of its %zu nodes", cabinet.son, nodes.size()));
        }
    }
    if (cabinets == 0) {
        notATree("it has no cabinet");
    }
    if (end != EXTENSION + 1 + cabinets + modules) {
        notATree("its nodes don't lie side by side");
    }
    return end;
}

int segmentOf(key_t key, const std::string& dir) {
    const int id = shmget(key, 0, 0);
    if (id != -1) {
        return id;
    }
    if (errno == ENOENT) {
        throw Failure(ExitStatus::NoSegment,
                      format("there is no segment: no gateway has been started in %s", dir.c_str()));
    }
    throw Failure(ExitStatus::NoSegment, format("the segment can't be opened: %s", std::strerror(errno)));
}

/// The panel of a node in the segment of a snapshot, attached for writing.
class PanelAccess {
  public:
    PanelAccess(const Snapshot& snapshot, std::size_t node, bool readOnly)
        : segment_(snapshot.id, readOnly), panel_(segment_.bytes() + node * NODE + offsetof(virtualNode_t, panel)) {}
    volatile uint8* value() const { return panel_ + offsetof(panel_t, value); }
    void putDelay(std::size_t offset, uint16 delay) {
        panel_[offset] = static_cast<uint8>(delay & 0xFF);
        panel_[offset + 1] = static_cast<uint8>(delay >> 8);
    }

  private:
    Attached segment_;
    volatile uint8* panel_;
};

bool exchange(volatile uint8* value, uint8 expected, uint8 wanted) {
    return __atomic_compare_exchange_n(value, &expected, wanted, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

}  // namespace

Snapshot takeSnapshot(const std::string& dir) {
    Snapshot snapshot;
    const std::string file = dir + KEY_FILE;
    snapshot.key = ftok(file.c_str(), PROJECT);
    if (snapshot.key == -1) {
        throw Failure(ExitStatus::NoSegment, format("%s: %s; --dir names the gateway's working directory", file.c_str(),
                                                    std::strerror(errno)));
    }
    snapshot.id = segmentOf(snapshot.key, dir);
    struct shmid_ds status;
    if (shmctl(snapshot.id, IPC_STAT, &status) == -1) {
        throw Failure(ExitStatus::NoSegment,
                      format("the state of segment %d can't be read: %s", snapshot.id, std::strerror(errno)));
    }
    snapshot.size = status.shm_segsz;
    snapshot.attached = status.shm_nattch;
    if (snapshot.size < MIN_NODES * NODE) {
        throw Failure(ExitStatus::BadSegment,
                      format("the segment has %zu bytes, the smallest tree has %zu", snapshot.size, MIN_NODES * NODE));
    }
    {
        const Attached segment(snapshot.id, true);
        const std::size_t nodes = MIN(snapshot.size / NODE, MAX_NODES);
        for (std::size_t i = 0; i < nodes; ++i) {
            snapshot.nodes.push_back(copyNode(segment.bytes(), i));
        }
    }
    snapshot.now = static_cast<std::int64_t>(std::time(nullptr));
    snapshot.nodes.resize(countNodes(snapshot.nodes));
    return snapshot;
}

std::int64_t Snapshot::age() const {
    // The aggregation dates the root's nominal data at each of its passes, five a second.
    const time32_t stamp = root().nominal.timestamp;
    return stamp == 0 ? -1 : MAX(ageOf(now, stamp), static_cast<std::int64_t>(0));
}

std::string deathOf(const Snapshot& snapshot) {
    const std::int64_t age = snapshot.age();
    const std::string last = age < 0 ? std::string("its tree was never filled")
                                     : format("its tree is %lld s old", static_cast<long long>(age));
    if (snapshot.attached == 0) {
        return "the gateway isn't running: nobody is attached to its segment, " + last;
    }
    if (age > DEAD_AFTER) {
        return "the gateway is dead or stands still: " + last;
    }
    return std::string();
}

void requireLive(const Snapshot& snapshot) {
    const std::string death = deathOf(snapshot);
    if (!death.empty()) {
        throw Failure(ExitStatus::DeadGateway, death);
    }
}

int cabinetOf(const virtualNode_t& node) {
    const int cabinet = node.ID[BOX_LETTER_AT] - 'A';
    return node.ID[BOX_AT] == 'B' && cabinet >= 0 && cabinet < MAXUPSBOX ? cabinet : -1;
}

namespace {

const virtualNode_t* nodeOf(const Snapshot& snapshot, uint8 kind, int cabinet) {
    for (const virtualNode_t& node : snapshot.nodes) {
        if (node.nodetype == kind && cabinetOf(node) == cabinet) {
            return &node;
        }
    }
    return nullptr;
}

}  // namespace

const virtualNode_t* Snapshot::cabinetNode(int cabinet) const {
    return nodeOf(*this, upsBoxNode, cabinet);
}

const virtualNode_t* Snapshot::moduleNode(int cabinet) const {
    return nodeOf(*this, ::moduleNode, cabinet);
}

bool Snapshot::cabinetReachable(int cabinet) const {
    return hasCabinet(cabinet) && elemAlarm(root().desc.sys.subSystem.UPSBox[cabinet]) != commLostAlarm;
}

bool Snapshot::moduleReachable(int cabinet) const {
    return cabinetReachable(cabinet) &&
           elemAlarm(cabinetNode(cabinet)->desc.upsBox.subSystem.UPSShelter[0]) != commLostAlarm;
}

std::string idOf(const virtualNode_t& node) {
    return node.nodetype == extNode ? std::string("-") : printable(fieldText(node.ID, sizeof(node.ID)));
}

std::size_t findNode(const Snapshot& snapshot, const std::string& id) {
    const std::string whole = idOf(snapshot.root()) + "." + id;
    std::string known;
    for (std::size_t i = 0; i < snapshot.nodes.size(); ++i) {
        if (i == EXTENSION) {
            continue;
        }
        const std::string name = idOf(snapshot.nodes[i]);
        if (name == id || name == whole) {
            return i;
        }
        known += " " + name;
    }
    throw Failure(ExitStatus::NoNode,
                  format("there is no node %s; there are:%s", printable(id).c_str(), known.c_str()));
}

bool writePanel(const Snapshot& snapshot, std::size_t node, uint8 value, uint16 delayShut, uint16 delayReboot) {
    PanelAccess panel(snapshot, node, false);
    if (*panel.value() != CMD_NONE) {
        return false;
    }
    panel.putDelay(offsetof(panel_t, delay_shut), delayShut);
    panel.putDelay(offsetof(panel_t, delay_reboot), delayReboot);
    return exchange(panel.value(), CMD_NONE, value);
}

uint8 readPanel(const Snapshot& snapshot, std::size_t node) {
    return *PanelAccess(snapshot, node, true).value();
}

bool withdrawPanel(const Snapshot& snapshot, std::size_t node, uint8 value) {
    return exchange(PanelAccess(snapshot, node, false).value(), value, CMD_NONE);
}

}  // namespace ugwctl
