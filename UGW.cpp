#include "Common/Globals.h"

int main() {
    logText("*** UGW modbus 485 ***\n");
    logText("%s / %s\n", build_date, build_git_sha);
    return 0;
}
