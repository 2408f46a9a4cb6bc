#include "simnmtslave.h"

SimNmtSlave::SimNmtSlave(SimDevice* device, QObject* parent)
    : QObject(parent)
    , mDevice(device)
{
    mHandler = device->addHandler([this](const CAN::CanRxMessage& frame) { return handleFrame(frame); });
}

SimNmtSlave::~SimNmtSlave()
{
    mDevice->removeHandler(mHandler);
}

bool SimNmtSlave::parseCommand(const CAN::CanMessage& frame, quint8 nodeId, quint8& command)
{
    // NMT: COB-ID 0, exactly two bytes: command specifier, node ID (0 = all).
    if (frame.id != 0 || frame.extended || frame.rtr || frame.length != 2)
        return false;
    if (frame.data[1] != 0 && frame.data[1] != nodeId)
        return false;
    command = frame.data[0];
    return true;
}

bool SimNmtSlave::isGuardingRequest(const CAN::CanMessage& frame, quint8 nodeId)
{
    return frame.rtr && !frame.extended && frame.id == 0x700u + nodeId;
}

CAN::CanMessage SimNmtSlave::guardingAnswer(quint8 nodeId, SimDevice::NmtState state, quint8 toggle)
{
    CAN::CanMessage m;
    m.id = 0x700u + nodeId;
    m.length = 1;
    m.data[0] = quint8((quint8(state) & 0x7F) | (toggle & 0x80));
    return m;
}

bool SimNmtSlave::execute(quint8 command)
{
    switch (command) {
    case Start:
        mDevice->setNmtState(SimDevice::Operational);
        return true;
    case Stop:
        mDevice->setNmtState(SimDevice::Stopped);
        return true;
    case EnterPreOperational:
        mDevice->setNmtState(SimDevice::PreOperational);
        return true;
    case ResetNode:
    case ResetCommunication:
        // Nothing of the application is kept apart from the communication
        // side here, so both resets do the same.
        reset();
        return true;
    default:
        return false;
    }
}

void SimNmtSlave::reset()
{
    mDevice->setNmtState(SimDevice::Initialising);
    mToggle.store(0); // the first guarding answer after a reset carries toggle 0
    mDevice->send(0x700u + mDevice->nodeId(), QByteArray(1, '\0')); // boot-up
    mDevice->setNmtState(SimDevice::PreOperational);
    // The heartbeat producer starts over (its timer lives in the device's thread).
    mDevice->setHeartbeatTime(mDevice->heartbeatTime());
}

bool SimNmtSlave::handleFrame(const CAN::CanRxMessage& frame)
{
    quint8 command = 0;
    if (parseCommand(frame.message, mDevice->nodeId(), command)) {
        Q_EMIT commandReceived(command);
        execute(command);
        return true;
    }
    if (isGuardingRequest(frame.message, mDevice->nodeId())) {
        // Toggle alternates with every answer: 0, 1, 0, ...
        const quint8 toggle = mToggle.fetch_xor(0x80);
        mDevice->send(guardingAnswer(mDevice->nodeId(), mDevice->nmtState(), toggle));
        return true;
    }
    return false;
}
