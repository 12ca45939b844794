#include "CABP/ThreadCABP.h"

void CABPMgr::AggregateBox() {}
void CABPMgr::updateItems() {}
void CABPMgr::checkUpsBoxSubSystem(uint8 /*boxCh*/) {}
void CABPMgr::checkSysSubSystem() {}
