/* Prints a line for each cabinet out of the gateway's segment.
 *
 *     cc -Wall -o read_tree read_tree.c
 *     ./read_tree DIRECTORY        the gateway's working directory, which holds the file UGW
 *
 * Exit status 0, 1 if there is no plant to read, 2 if it never stood still.
 */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>

enum {
    NODE = 446,          /* bytes of a node */
    NONE = 255,          /* a link that leads nowhere */
    ID = 33, ID_SIZE = 16,
    NEXT = 50, SON = 52, /* links */
    DESC = 177,          /* what is measured */
    ROOT_BOXES = DESC + 261, /* in the root: state of each cabinet, by letter */
    BOX_TIME = DESC + 0, /* in a cabinet: */
    UPS = DESC + 4,
    UPS_LOAD = UPS + 10, UPS_CHARGE = UPS + 56, UPS_VIN = UPS + 71,
    TRIES = 20
};

static const char *const states[8] = {"lost", "ok", "warning", "anomaly", "fault", "lock", "?", "?"};

static unsigned u16(const unsigned char *p) { return p[0] | p[1] << 8; }
static int i16(const unsigned char *p) { return (int16_t)u16(p); }
static long i32(const unsigned char *p) { return (int32_t)(u16(p) | (uint32_t)u16(p + 2) << 16); }

/* Copies a node until two copies agree: nobody locks the segment, so that a copy may be half of one record and half of
 * the next. */
static int copy_node(unsigned char *to, const unsigned char *segment, unsigned index) {
    unsigned char again[NODE];
    for (int i = 0; i < TRIES; ++i) {
        struct timespec pause = {0, 1000000};
        memcpy(to, segment + index * NODE, NODE);
        nanosleep(&pause, NULL);
        memcpy(again, segment + index * NODE, NODE);
        if (memcmp(to, again, NODE) == 0) {
            return 0;
        }
    }
    return -1;
}

int main(int argc, char *argv[]) {
    char path[4096];
    snprintf(path, sizeof(path), "%s/UGW", argc > 1 ? argv[1] : ".");
    key_t key = ftok(path, 1);
    int id = key == -1 ? -1 : shmget(key, 0, 0);
    struct shmid_ds about;
    if (id == -1 || shmctl(id, IPC_STAT, &about) == -1) {
        fprintf(stderr, "%s: no segment of a gateway\n", path);
        return 1;
    }
    unsigned nodes = about.shm_segsz / NODE;
    const unsigned char *segment = shmat(id, NULL, SHM_RDONLY);
    if (nodes < 2 || segment == (void *)-1) {
        fprintf(stderr, "%s: no plant in the segment\n", path);
        return 1;
    }
    unsigned char root[NODE], box[NODE];
    if (copy_node(root, segment, 0) == -1) {
        fprintf(stderr, "the system's record never stands still\n");
        return 2;
    }
    /* No link is trusted: at most as many steps as there are nodes. */
    unsigned at = root[SON];
    for (unsigned steps = 0; at < nodes && at != NONE && steps < nodes; ++steps, at = box[NEXT]) {
        if (copy_node(box, segment, at) == -1) {
            fprintf(stderr, "a cabinet's record never stands still\n");
            return 2;
        }
        /* An ID may lack its end. "SA.BC": this card's letter, the cabinet's. */
        char name[ID_SIZE + 1] = "";
        memcpy(name, box + ID, ID_SIZE);
        unsigned letter = (unsigned)(name[4] - 'A');
        printf("%s %s in %u %u %u V load %d %d %d %% battery %u %% age %ld s\n", name,
               letter < 4 ? states[root[ROOT_BOXES + letter] & 7] : "?", u16(box + UPS_VIN), u16(box + UPS_VIN + 2),
               u16(box + UPS_VIN + 4), i16(box + UPS_LOAD), i16(box + UPS_LOAD + 2), i16(box + UPS_LOAD + 4),
               box[UPS_CHARGE], (long)time(NULL) - i32(box + BOX_TIME));
    }
    shmdt(segment);
    return 0;
}
