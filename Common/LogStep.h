// Log lines of a step that has a function of its own: they stand under the name of the operation it belongs to, which
// is what a reader of the log knows.
#ifndef COMMON_LOGSTEP_H
#define COMMON_LOGSTEP_H

#include "Common/Common.h"

#define LOG_LINE_OF_(level, operation, ...) logLine(level, logBaseName(__FILE__), operation, __VA_ARGS__)

// For files of a trace level that shows them.
#define DBG_W_OF(operation, ...) LOG_LINE_OF_("War", operation, __VA_ARGS__)
#define DBG_E_OF(operation, ...) LOG_LINE_OF_("Err", operation, __VA_ARGS__)
#define DBG_P_OF(operation, ...) LOG_LINE_OF_("", operation, __VA_ARGS__)
#define DUMPHEX_OF(operation, name, size, pointer) logDump(logBaseName(__FILE__), operation, name, size, pointer)

#endif
