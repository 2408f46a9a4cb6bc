#ifndef SIMNODE_H
#define SIMNODE_H

#include "simlssslave.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <memory>
#include <mutex>

class AbstractCanAdapter;
class ObjectDictionary;
class SdoServer;
class SimDevice;
class SimEmcyProducer;
class SimNmtSlave;
class SimTpdo;
class UsdoServer;

// One simulated device: the CANopen device with its object dictionary and
// services, and its LSS slave. A device without node-ID (255) waits silently
// (no boot-up, no heartbeat, no SDO) until LSS gives it one: when the master
// switches it back to waiting mode, it boots with the new node-ID. A stored
// configuration is kept in a file, so that a restarted device keeps its node-ID.
class SimNode : public QObject
{
    Q_OBJECT
public:
    struct Config {
        quint8 nodeId = 5; // 255: unconfigured
        SimLssSlave::Identity identity;
        quint16 heartbeatMs = 1000;
        bool operational = false;   // enters operational by itself after the boot-up
        bool sdo = true;
        quint8 sdoBlockSize = 127;
        int sdoTimeoutMs = 3000;
        bool sdoCrc = true;
        QString storeFile;          // where store configuration writes; empty: not kept
    };
    // The identity a device of this node-ID has unless told otherwise.
    static SimLssSlave::Identity defaultIdentity(quint8 nodeId);

    SimNode(const Config& config, AbstractCanAdapter* adapter, QObject* parent = nullptr);
    ~SimNode() override;

    // Boots the device if it has a node-ID.
    void start();

    quint8 nodeId() const;
    const SimLssSlave::Identity& identity() const { return mConfig.identity; }
    SimDevice* device() const { return mDevice.get(); }
    ObjectDictionary* dictionary() const { return mOd.get(); }
    SimNmtSlave* nmt() const { return mNmt.get(); }
    SimEmcyProducer* emcy() const { return mEmcy.get(); }
    SimTpdo* tpdo() const { return mTpdo.get(); }

    // The node-ID stored for an identity in a store file, 0 if none.
    static quint8 storedNodeId(const QString& file, const SimLssSlave::Identity& identity);

Q_SIGNALS:
    // A new node-ID took effect (LSS), or the configuration was stored.
    void nodeIdChanged(quint8 nodeId);
    void configurationStored(bool ok);

private Q_SLOTS:
    void applyLss();

private:
    void onFrame(CAN::CanRxMessage* frame); // the adapter's receive thread
    bool store(quint8 nodeId, quint8 bitTiming) const;

    Config mConfig;
    QPointer<AbstractCanAdapter> mAdapter;
    std::unique_ptr<ObjectDictionary> mOd;
    std::unique_ptr<SimDevice> mDevice;
    SdoServer* mSdo = nullptr; // a child of the device
    std::unique_ptr<UsdoServer> mUsdo;
    std::unique_ptr<SimNmtSlave> mNmt;
    std::unique_ptr<SimEmcyProducer> mEmcy;
    std::unique_ptr<SimTpdo> mTpdo;
    std::mutex mLssLock;
    SimLssSlave mLss;
};

#endif
