#include "Common/Globals.h"

const char* serialPort = nullptr;
const char* serialPortCABP = nullptr;
int deviceBaudRate = 1200;
uint8 CABPAddr = 0xE0;
bool moduleBpresent = false;
bool moduleCpresent = false;
bool moduleDpresent = false;
const char* jsonPath = nullptr;
const char* jsonPathTMP = nullptr;
std::atomic<bool> needRestart{false};
SystemMgr* pSysMgr = nullptr;
