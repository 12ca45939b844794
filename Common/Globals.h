// Process-wide values that main() sets out of the command line before the first thread starts; only read afterwards.
#ifndef COMMON_GLOBALS_H
#define COMMON_GLOBALS_H

#include <atomic>

#include "Common/Common.h"

class SystemMgr;

extern const char* serialPort;      ///< device path of the module line's port
extern const char* serialPortCABP;  ///< device path of the cabinet bus port
extern int deviceBaudRate;          ///< speed of the module line, 1200 unless told otherwise
extern uint8 CABPAddr;              ///< own bus address, 0xEA to 0xED; 0xE0 while unknown
extern bool moduleBpresent;         ///< cabinet B belongs to the plant (cabinet A always does)
extern bool moduleCpresent;         ///< cabinet C belongs to the plant
extern bool moduleDpresent;         ///< cabinet D belongs to the plant
extern const char* jsonPath;        ///< final path of the status file
extern const char* jsonPathTMP;     ///< path it is written to before it is renamed

/// Ends the main thread's loop and so asks for the orderly stop. Nothing in the system sets it.
extern std::atomic<bool> needRestart;

/// The single system manager, through which configuration, threads and tree are reached. Set by its constructor
/// before any thread starts.
extern SystemMgr* pSysMgr;

// Made by the build.
extern const char* build_date;     ///< form "Thu Jul 18 13:55:58 UTC 2019"
extern const char* build_git_sha;  ///< short revision of the source tree, "unknown" without one

#endif
