#include "simlssslave.h"

namespace {
quint32 value32(const CAN::CanMessage& m)
{
    return quint32(m.data[1]) | quint32(m.data[2]) << 8 | quint32(m.data[3]) << 16 | quint32(m.data[4]) << 24;
}
} // namespace

quint32 SimLssSlave::Identity::part(int sub) const
{
    switch (sub) {
    case 0: return vendorId;
    case 1: return productCode;
    case 2: return revisionNumber;
    default: return serialNumber;
    }
}

SimLssSlave::SimLssSlave(const Identity& identity, quint8 nodeId)
    : mIdentity(identity)
    , mActiveNodeId(nodeId)
    , mPendingNodeId(nodeId)
{
}

bool SimLssSlave::bitTimingSupported(quint8 table, quint8 index)
{
    // Standard table: 0 = 1000, 1 = 800 (not offered here), 2 = 500, 3 = 250,
    // 4 = 125, 6 = 50, 7 = 20, 8 = 10 kbit/s, 9 = automatic.
    return table == 0 && index <= 9 && index != 1 && index != 5;
}

CAN::CanMessage SimLssSlave::answer(quint8 command, quint32 value)
{
    CAN::CanMessage m;
    m.id = AnswerId;
    m.length = 8;
    m.data[0] = command;
    for (int i = 0; i < 4; ++i)
        m.data[1 + i] = quint8(value >> (8 * i));
    return m;
}

CAN::CanMessage SimLssSlave::errorAnswer(quint8 command, quint8 error)
{
    return answer(command, error);
}

bool SimLssSlave::takeNodeIdChange()
{
    const bool changed = mNodeIdChanged;
    mNodeIdChanged = false;
    return changed;
}

bool SimLssSlave::takeStoreRequest()
{
    const bool requested = mStoreRequested;
    mStoreRequested = false;
    return requested;
}

int SimLssSlave::takeBitTimingSwitch()
{
    const int delay = mBitTimingDelay;
    mBitTimingDelay = -1;
    return delay;
}

void SimLssSlave::leaveConfiguration()
{
    if (mMode == Mode::Configuration && mPendingNodeId != mActiveNodeId) {
        // A new node-ID takes effect when configuration mode is left.
        mActiveNodeId = mPendingNodeId;
        mNodeIdChanged = true;
    }
    mMode = Mode::Waiting;
    mFastScanPos = 0;
}

QList<CAN::CanMessage> SimLssSlave::handle(const CAN::CanMessage& request)
{
    if (request.id != RequestId || request.length < 1 || request.rtr)
        return {};
    const quint8 cs = request.data[0];
    const bool configuring = mMode == Mode::Configuration;
    switch (cs) {
    case 0x04: // switch state global
        if (request.data[1] == 0)
            leaveConfiguration();
        else if (request.data[1] == 1)
            mMode = Mode::Configuration;
        return {};
    case 0x40: case 0x41: case 0x42: case 0x43: { // switch state selective, one part per frame
        const int part = cs - 0x40;
        if (request.length < 5)
            return {};
        if (part == 0)
            mSelectiveMatched = 0;
        if (mSelectiveMatched == part && value32(request) == mIdentity.part(part))
            ++mSelectiveMatched;
        else
            mSelectiveMatched = -1;
        if (part == 3 && mSelectiveMatched == 4) {
            mMode = Mode::Configuration;
            return {answer(0x44)};
        }
        return {};
    }
    case 0x11: { // configure node-ID: 1..127 or 255 (unconfigured)
        if (!configuring || request.length < 2)
            return {};
        const quint8 id = request.data[1];
        if ((id >= 1 && id <= 127) || id == Unconfigured) {
            mPendingNodeId = id;
            return {errorAnswer(0x11, 0)};
        }
        return {errorAnswer(0x11, 1)}; // node-ID out of range
    }
    case 0x13: // configure bit timing
        if (!configuring || request.length < 3)
            return {};
        if (!bitTimingSupported(request.data[1], request.data[2]))
            return {errorAnswer(0x13, 1)}; // bit timing not supported
        mBitTimingIndex = request.data[2];
        return {errorAnswer(0x13, 0)};
    case 0x15: // activate bit timing: no answer
        if (configuring && request.length >= 3)
            mBitTimingDelay = int(request.data[1]) | int(request.data[2]) << 8;
        return {};
    case 0x17: // store configuration
        if (!configuring)
            return {};
        mStoreRequested = true;
        return {errorAnswer(0x17, 0)};
    case 0x5A: case 0x5B: case 0x5C: case 0x5D: // inquire identity parts
        if (!configuring)
            return {};
        return {answer(cs, mIdentity.part(cs - 0x5A))};
    case 0x5E: // inquire node-ID: the active one
        if (!configuring)
            return {};
        return {answer(0x5E, mActiveNodeId)};
    case 0x46: case 0x47: case 0x48: case 0x49: case 0x4A: case 0x4B: { // identify remote slave
        if (request.length < 5)
            return {};
        const int i = cs - 0x46;
        if (i == 0)
            mQueryMask = 0;
        mQuery[i] = value32(request);
        mQueryMask |= quint8(1 << i);
        if (i != 5 || mQueryMask != 0x3F)
            return {};
        const bool match = mQuery[0] == mIdentity.vendorId && mQuery[1] == mIdentity.productCode
                           && mIdentity.revisionNumber >= mQuery[2] && mIdentity.revisionNumber <= mQuery[3]
                           && mIdentity.serialNumber >= mQuery[4] && mIdentity.serialNumber <= mQuery[5];
        return match ? QList<CAN::CanMessage>{answer(0x4F)} : QList<CAN::CanMessage>{};
    }
    case 0x4C: // identify non-configured remote slave
        return mActiveNodeId == Unconfigured ? QList<CAN::CanMessage>{answer(0x50)} : QList<CAN::CanMessage>{};
    case 0x51: { // fast scan: only unconfigured slaves in waiting mode take part
        if (request.length < 8 || mActiveNodeId != Unconfigured || configuring)
            return {};
        const quint32 idNumber = value32(request);
        const quint8 bitChecked = request.data[5], lssSub = request.data[6], lssNext = request.data[7];
        if (bitChecked == 0x80) { // reset: every participant answers
            mFastScanPos = 0;
            return {answer(0x4F)};
        }
        if (bitChecked > 31 || lssSub > 3 || lssSub != mFastScanPos)
            return {};
        // Bits 31..bitChecked must equal the slave's.
        if (((idNumber ^ mIdentity.part(lssSub)) >> bitChecked) != 0)
            return {};
        if (bitChecked == 0) {
            // The part is confirmed: move on; past the serial number, configuration mode.
            if (lssNext < mFastScanPos)
                mMode = Mode::Configuration;
            mFastScanPos = lssNext > 3 ? 0 : lssNext;
        }
        return {answer(0x4F)};
    }
    default:
        return {};
    }
}
