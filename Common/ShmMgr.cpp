#define TRACELEVEL_DEBUG
#include "Common/ShmMgr.h"

#include <sys/shm.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "Common/Common.h"

namespace {

constexpr int SHM_MODE = 0604;        // the owner writes, everybody else reads
constexpr uint8 DETACH_TIMEOUT = 60;  // s until the last resort
constexpr time_t DETACH_POLL = 1;     // s
constexpr char LAST_RESORT[] = "reboot -f";

// A signal doesn't shorten the wait.
void waitPoll() {
    struct timespec left;
    left.tv_sec = DETACH_POLL;
    left.tv_nsec = 0;
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

}  // namespace

int getShm(void** pShm, int size, key_t shm_key, int flag) {
    *pShm = nullptr;
    const int shm_id = shmget(shm_key, static_cast<size_t>(size), flag);
    if (shm_id == -1) {
        DBG_E("Errore nell'allocazione della shared memory!\n");
        logPerror();
        return -1;
    }
    DBG_D("Allocata Shared Memory con id %d\n", shm_id);
    void* const address = shmat(shm_id, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) {
        DBG_E("Errore nell'attach della shared memory!\n");
        logPerror();
        return -1;
    }
    *pShm = address;
    DBG_D("shared memory attached at address %p\n", address);
    return shm_id;
}

int createShm(void** pShm, int size, key_t shm_key) {
    return getShm(pShm, size, shm_key, IPC_CREAT | SHM_MODE);
}

int attachShm(void** pShm, int size, key_t shm_key) {
    return getShm(pShm, size, shm_key, SHM_MODE);
}

int detachShm(void** pShm) {
    const int ret = shmdt(*pShm);
    if (ret == -1) {
        DBG_E("Errore nella detach della shared memory!\n");
        logPerror();
    }
    return ret;
}

int destroyShm(void** pShm, int shm_id) {
    if (shmdt(*pShm) == -1) {
        DBG_E("Errore nella detach della shared memory!\n");
        logPerror();
        return -1;
    }
    uint8 timeout = DETACH_TIMEOUT;  // wraps below 0, so that the last resort repeats every 256 passes
    for (bool waited = false;; waited = true) {
        struct shmid_ds status;
        if (shmctl(shm_id, IPC_STAT, &status) == -1) {
            DBG_E("Errore lettura stato della shared memory!\n");
            logPerror();
            return -1;
        }
        const bool attached = status.shm_nattch != 0;
        if (waited) {
            if (attached) {
                DBG_E("... persistono!!\n");
            }
            if (--timeout == 0) {
                DBG_E("sono disperato!!! a mali estremi ... \n");
                if (std::system(LAST_RESORT) != 0) {
                    // It ends the card or it doesn't: the loop goes on either way.
                }
            }
        }
        if (!attached) {
            break;
        }
        DBG_W("Vi sono altri processi collegati alla shm!!\n");
        DBG_W("Attendo e ritento...\n");
        waitPoll();
    }
    if (shmctl(shm_id, IPC_RMID, nullptr) == -1) {
        DBG_E("Errore deallocazione della shared memory!\n");
        logPerror();
        return -1;
    }
    DBG_D("shared memory deallocata\n");
    return 0;
}
