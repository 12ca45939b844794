// What the rest of the program reads of the bus thread and sets in it.
#include <cstring>
#include <utility>

#include "CABP/ThreadCABP.h"

namespace {

// Two digits, padded with blanks.
QString hex2(uint8 byte) {
    return QString::number(byte, 16).rightJustified(2, ' ');
}

// Put together by hand: whatever byte stands for a command, it is shown as it is.
QString describe(const char* title, const pckStruct& QC) {
    QString text = QString::fromLatin1(title);
    text += "\\02 0x";  // spelt out, as the frame's first byte
    text += hex2(QC.Src);
    text += " 0x";
    text += hex2(QC.Dest);
    text += ' ';
    text += QChar(static_cast<ushort>(QC.MainCmd));
    text += QChar(static_cast<ushort>(QC.SubCmd));
    text += "...";
    return text;
}

QString timeOfDay() {
    const time_t now = std::time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    return QString::asprintf("%02u:%02u:%02u", static_cast<unsigned>(local.tm_hour),
                             static_cast<unsigned>(local.tm_min), static_cast<unsigned>(local.tm_sec));
}

}  // namespace

void CABPMgr::saveCurrPck(QCMgr* e) {
    QString text = describe("currPck:", e->QC);
    const QMutexLocker locker(&mutexDiag);
    currPckStr = std::move(text);
}

void CABPMgr::saveLastErr(QCMgr* e) {
    QString text = describe("LastErr:", e->QC) + " @" + timeOfDay();
    const QMutexLocker locker(&mutexDiag);
    lastErrStr = std::move(text);
}

QString CABPMgr::getCurrPck() {
    const QMutexLocker locker(&mutexDiag);
    return currPckStr;
}

QString CABPMgr::getLastErr() {
    const QMutexLocker locker(&mutexDiag);
    return lastErrStr;
}

void CABPMgr::clearLastErr() {
    const QMutexLocker locker(&mutexDiag);
    lastErrStr = "LastErr:";
}

void CABPMgr::getDataShm(char* st) {
    std::memcpy(st, "WAIT", sizeof("WAIT"));
}

void CABPMgr::lockCABPData() {
    mutexCABPData->lock();
}

void CABPMgr::unlockCABPData() {
    mutexCABPData->unlock();
}

void CABPMgr::FlushRcvFifo() {
    CABP_Init();  // the port being open, this only empties its queues
}

void CABPMgr::CABPStateMachineReset() {
    clock_gettime(CLOCK_MONOTONIC, &lastTime);
}

void CABPMgr::CABPStateMachineUserConfirm(uint8 newUserCABPAddr, UPS_Type_e newUserBoxType) {
    userCABPAddr = newUserCABPAddr;
    userBoxType = newUserBoxType;
}

int CABPMgr::forcedonBypassStatus() {
    const myMutexLocker locker(mutexForcedonBypass);
    return forcedOnBypass;
}

void CABPMgr::setForcedonBypass() {
    const myMutexLocker locker(mutexForcedonBypass);
    forcedOnBypass = 1;
}

void CABPMgr::resetForcedonBypass() {
    const myMutexLocker locker(mutexForcedonBypass);
    forcedOnBypass = 0;
}

void CABPMgr::initForcedonBypass() {
    const myMutexLocker locker(mutexForcedonBypass);
    forcedOnBypass = -1;
    guiForcedOnBypass = 0;
}

void CABPMgr::incGuiForcedonBypass() {
    const myMutexLocker locker(mutexForcedonBypass);
    ++guiForcedOnBypass;
}

void CABPMgr::decGuiForcedonBypass() {
    const myMutexLocker locker(mutexForcedonBypass);
    --guiForcedOnBypass;
}
