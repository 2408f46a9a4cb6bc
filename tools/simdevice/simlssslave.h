#ifndef SIMLSSSLAVE_H
#define SIMLSSSLAVE_H

#include "cantypes.h"

#include <QList>

// The LSS slave of a simulated device: its identity, its LSS mode (waiting or
// configuration), the active and the pending node-ID and bit timing, and the
// fast-scan position. handle() takes one request frame (0x7E5) and returns
// the answers to send on 0x7E4. Not thread-safe: the device serialises calls.
class SimLssSlave
{
public:
    struct Identity {
        quint32 vendorId = 0;
        quint32 productCode = 0;
        quint32 revisionNumber = 0;
        quint32 serialNumber = 0;
        quint32 part(int sub) const;
    };
    enum class Mode { Waiting, Configuration };
    static constexpr quint8 Unconfigured = 0xFF;
    static constexpr quint32 RequestId = 0x7E5;
    static constexpr quint32 AnswerId = 0x7E4;

    SimLssSlave(const Identity& identity, quint8 nodeId);

    QList<CAN::CanMessage> handle(const CAN::CanMessage& request);

    const Identity& identity() const { return mIdentity; }
    Mode mode() const { return mMode; }
    quint8 activeNodeId() const { return mActiveNodeId; }
    quint8 pendingNodeId() const { return mPendingNodeId; }
    quint8 bitTimingIndex() const { return mBitTimingIndex; }
    // True once after a switch back to waiting mode made a new pending
    // node-ID active (the device then restarts its communication).
    bool takeNodeIdChange();
    // True once after a store request (the device then writes its file).
    bool takeStoreRequest();
    // Bit timing switch requested: the delay in ms, -1 if none since the last call.
    int takeBitTimingSwitch();

    // Table 0 indices a slave accepts (CiA 301 bit rates 1000..10 kbit/s, auto).
    static bool bitTimingSupported(quint8 table, quint8 index);

private:
    static CAN::CanMessage answer(quint8 command, quint32 value = 0);
    static CAN::CanMessage errorAnswer(quint8 command, quint8 error);
    void leaveConfiguration();

    Identity mIdentity;
    Mode mMode = Mode::Waiting;
    quint8 mActiveNodeId;
    quint8 mPendingNodeId;
    quint8 mBitTimingIndex = 0;
    bool mNodeIdChanged = false;
    bool mStoreRequested = false;
    int mBitTimingDelay = -1;
    // Switch state selective: how many of the four parts matched in a row.
    int mSelectiveMatched = 0;
    // Identify remote slave: the six values of the query so far.
    quint32 mQuery[6] = {};
    quint8 mQueryMask = 0;
    // Fast scan: the part being compared (LSSPos).
    quint8 mFastScanPos = 0;
};

#endif
