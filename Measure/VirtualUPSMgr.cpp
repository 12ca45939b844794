#define TRACELEVEL_DEBUG
#include "Measure/VirtualUPSMgr.h"

#include <sys/types.h>
#include <sys/wait.h>

#include <QtCore/QThread>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "CABP/CABPTypes.h"
#include "Common/Globals.h"
#include "Common/ShmMgr.h"
#include "Common/VirtualUPSUtility.h"

int virtualUPS_PID = -1;

namespace {

constexpr char KEY_FILE[] = "./UGW";
constexpr int KEY_ID = 1;
constexpr int ROOT_IDX = 0;
constexpr int EXT_IDX = 1;
constexpr int FIRST_BOX_IDX = 2;
constexpr uint8 EXT_DEVTYPE = 24;
constexpr uint8 EXT_COMTYPE = 0;
constexpr char EXT_DEVTYPETEXT[] = "MLINK51201RU";
constexpr int DEVICENO_SHIFT = 9;
constexpr int MODULE_NO = 1;  // a cabinet has one module
constexpr uint16 DELAY_NOT_SET = 65535;

constexpr int CHILD_POLLS = 20;
constexpr unsigned long CHILD_POLL_S = 1;
constexpr std::size_t INDENT_BUFLEN = 128;

int countNodes(const PlantCfg& Cfg) {
    int count = FIRST_BOX_IDX;
    for (const upsBoxCfg_t& box : Cfg.Ups) {
        if (box.present) {
            count += box.modulePresent[0] ? 2 : 1;
        }
    }
    return count;
}

}  // namespace

VirtualUPSMgr::VirtualUPSMgr(PlantCfg& Cfg) : virtualUPS(nullptr), shm_id(-1), nodeCount(0) {
    shm_id = buildSysTree(ftok(KEY_FILE, KEY_ID), Cfg);
    if (shm_id < 0) {
        DBG_E("Errore nella costruzione dell'albero del sistema\n");
    }
}

VirtualUPSMgr::~VirtualUPSMgr() {
    if (virtualUPS_PID >= 1) {
        DBG_D("Fermo il processo virtualUPS con PID %d\n", virtualUPS_PID);
        if (kill(virtualUPS_PID, SIGTERM) == -1) {
            DBG_E("kill del processo virtualUPS fallito!\n");
        }
        for (int poll = 0; poll < CHILD_POLLS; ++poll) {
            int status = 0;
            const pid_t pid = waitpid(virtualUPS_PID, &status, WNOHANG);
            if (pid == 0) {
                DBG_P("...\n");
                QThread::sleep(CHILD_POLL_S);
                continue;
            }
            if (pid == -1) {
                DBG_E("waitpid() error");
            } else if (WIFSIGNALED(status)) {
                DBG_P("child did not exit successfully");
            } else {
                DBG_P("child exited with status of %d\n", WEXITSTATUS(status));
            }
            break;
        }
    }
    void* address = virtualUPS;
    destroyShm(&address, shm_id);
}

virtualNode_t* VirtualUPSMgr::searchNode(const char* str) {
    return search(virtualUPS, str, nodeCount);
}

int VirtualUPSMgr::buildSysTree(key_t shm_key, PlantCfg& Cfg) {
    nodeCount = countNodes(Cfg);
    void* address = nullptr;
    const int id = createShm(&address, nodeCount * static_cast<int>(sizeof(virtualNode_t)), shm_key);
    if (id < 0) {
        DBG_E("Errore nella creazione della shared Memory\n");
        return id;
    }
    virtualUPS = static_cast<virtualUPS_t>(address);

    virtualNode_t* const root = &virtualUPS[ROOT_IDX];
    root->nodetype = sysNode;
    std::snprintf(root->Description, sizeof(root->Description), "System QPR - %5d",
                  static_cast<int>(Cfg.DeviceNo >> DEVICENO_SHIFT));
    const char own = boxLetter(CABPAddr);
    std::snprintf(root->ID, sizeof(root->ID), "S%c", own);
    root->idx = ROOT_IDX;
    InitNode(root);
    root->ext = EXT_IDX;

    // Not initialised as a node: no other field of it is set.
    extData_t* const ext = reinterpret_cast<extData_t*>(&virtualUPS[EXT_IDX]);
    ext->nodetype = extNode;
    ext->DevType = EXT_DEVTYPE;
    std::memcpy(ext->DevTypeText, EXT_DEVTYPETEXT, sizeof(EXT_DEVTYPETEXT));
    ext->ComType = EXT_COMTYPE;

    int idx = FIRST_BOX_IDX;
    virtualNode_t* boxes[MAXUPSBOX] = {};  // by letter, null where the cabinet is absent
    virtualNode_t* previous = nullptr;
    for (int i = 0; i < MAXUPSBOX; ++i) {
        if (!Cfg.Ups[i].present) {
            continue;
        }
        virtualNode_t* const box = &virtualUPS[idx];
        const char letter = static_cast<char>('A' + i);
        box->nodetype = upsBoxNode;
        std::snprintf(box->Description, sizeof(box->Description), "UpsBox %c", letter);
        std::snprintf(box->ID, sizeof(box->ID), "S%c.B%c", own, letter);
        box->idx = static_cast<uint8>(idx);
        InitNode(box);
        if (previous == nullptr) {
            root->son = box->idx;
        } else {
            previous->nxtBrother = box->idx;
            box->prvBrother = previous->idx;
        }
        boxes[i] = box;
        previous = box;
        ++idx;
    }

    for (int i = 0; i < MAXUPSBOX; ++i) {
        if (boxes[i] == nullptr) {
            continue;
        }
        // Set first and in any case: without a module of its own a cabinet points at the next cabinet's, or past the
        // last node.
        boxes[i]->son = static_cast<uint8>(idx);
        if (!Cfg.Ups[i].modulePresent[0]) {
            continue;
        }
        virtualNode_t* const module = &virtualUPS[idx];
        module->nodetype = moduleNode;
        std::snprintf(module->Description, sizeof(module->Description), "Module %d", MODULE_NO);
        std::snprintf(module->ID, sizeof(module->ID), "S%c.B%c.M%d", own, 'A' + i, MODULE_NO);
        module->idx = static_cast<uint8>(idx);
        InitNode(module);
        ++idx;
    }

    DBG_p("\n\n");
    printNode(0, root);
    return id;
}

void VirtualUPSMgr::InitNode(virtualNode_t* node) {
    node->nxtBrother = NULLNODE;
    node->prvBrother = NULLNODE;
    node->son = NULLNODE;
    node->ext = NULLNODE;
    node->panel.delay_shut = DELAY_NOT_SET;
    node->panel.delay_reboot = DELAY_NOT_SET;
    node->panel.value = CMD_NONE;
}

void VirtualUPSMgr::printNode(uint8 level, virtualNode_t* node) {
    char str[INDENT_BUFLEN];
    const std::size_t indent = MIN(static_cast<std::size_t>(level) * INDENT, sizeof(str) - 1);
    std::memset(str, ' ', indent);
    str[indent] = '\0';
    // Links of a tree lead to higher indices only: whatever else stands there, the printing ends.
    const auto linked = [this, node](uint8 link) -> virtualNode_t* {
        return link < nodeCount && link > node - virtualUPS ? &virtualUPS[link] : nullptr;
    };

    DBG_p("%s%.*s\n%stype:%d\n%s%.*s   %d\n%s nxt:%d prv:%d\n", str, static_cast<int>(sizeof(node->Description)),
          node->Description, str, node->nodetype, str, static_cast<int>(sizeof(node->ID)), node->ID, node->idx, str,
          node->nxtBrother, node->prvBrother);
    if (linked(node->ext) != nullptr) {
        extData_t ext;
        std::memcpy(&ext, linked(node->ext), sizeof(ext));
        DBG_p("%stype:%d\n%sDevType%d ComType%d\n%s%.*s\n", str, ext.nodetype, str, ext.DevType, ext.ComType, str,
              static_cast<int>(sizeof(ext.DevTypeText)), ext.DevTypeText);
    }
    if (virtualNode_t* const son = linked(node->son)) {
        DBG_p("\n");
        printNode(static_cast<uint8>(level + 1), son);
    }
    if (virtualNode_t* const brother = linked(node->nxtBrother)) {
        DBG_p("\n");
        printNode(level, brother);
    }
}
