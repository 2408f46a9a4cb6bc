#include "simnode.h"

#include "abstractcanadapter.h"
#include "objectdictionary.h"
#include "sdoserver.h"
#include "simdevice.h"
#include "simemcyproducer.h"
#include "simnmtslave.h"
#include "simtpdo.h"
#include "usdoserver.h"

#include <QFile>
#include <QSaveFile>
#include <QStringList>
#include <QTextStream>

namespace {
QByteArray le32(quint32 v)
{
    QByteArray b(4, '\0');
    for (int i = 0; i < 4; ++i)
        b[i] = char(v >> (8 * i));
    return b;
}

// One line per stored device: vendor product revision serial node-ID bit-timing, hexadecimal.
QString identityKey(const SimLssSlave::Identity& i)
{
    return QStringLiteral("%1 %2 %3 %4")
        .arg(i.vendorId, 8, 16, QLatin1Char('0'))
        .arg(i.productCode, 8, 16, QLatin1Char('0'))
        .arg(i.revisionNumber, 8, 16, QLatin1Char('0'))
        .arg(i.serialNumber, 8, 16, QLatin1Char('0'));
}

std::mutex& storeLock()
{
    static std::mutex lock; // the devices of one process share the file
    return lock;
}
} // namespace

SimLssSlave::Identity SimNode::defaultIdentity(quint8 nodeId)
{
    SimLssSlave::Identity i;
    i.vendorId = 0x00000ABC;
    i.productCode = 0x0000C051;
    i.revisionNumber = 0x00010000;
    i.serialNumber = 0x5D000000u | nodeId;
    return i;
}

quint8 SimNode::storedNodeId(const QString& file, const SimLssSlave::Identity& identity)
{
    std::lock_guard<std::mutex> guard(storeLock());
    QFile f(file);
    if (file.isEmpty() || !f.open(QIODevice::ReadOnly | QIODevice::Text))
        return 0;
    const QString key = identityKey(identity);
    while (!f.atEnd()) {
        const QString line = QString::fromLatin1(f.readLine()).trimmed();
        if (line.startsWith(key)) {
            bool ok = false;
            const uint node = line.mid(key.size()).trimmed().section(QLatin1Char(' '), 0, 0).toUInt(&ok, 16);
            if (ok && ((node >= 1 && node <= 127) || node == SimLssSlave::Unconfigured))
                return quint8(node);
        }
    }
    return 0;
}

SimNode::SimNode(const Config& config, AbstractCanAdapter* adapter, QObject* parent)
    : QObject(parent)
    , mConfig(config)
    , mAdapter(adapter)
    , mOd(new ObjectDictionary)
    , mLss(config.identity, config.nodeId)
{
    // A stored configuration wins over the one given.
    const quint8 stored = storedNodeId(config.storeFile, config.identity);
    if (stored != 0) {
        mConfig.nodeId = stored;
        mLss = SimLssSlave(config.identity, stored);
    }
    const quint8 node = mConfig.nodeId;
    mDevice.reset(new SimDevice(node, adapter));
    mOd->addDefaultEntries(node == SimLssSlave::Unconfigured ? 0 : node, mDevice.get());
    mOd->setValue(0x1018, 1, le32(mConfig.identity.vendorId));
    mOd->setValue(0x1018, 2, le32(mConfig.identity.productCode));
    mOd->setValue(0x1018, 3, le32(mConfig.identity.revisionNumber));
    mOd->setValue(0x1018, 4, le32(mConfig.identity.serialNumber));
    if (config.sdo) {
        mSdo = new SdoServer(mDevice.get(), mOd.get(), mDevice.get());
        mSdo->setBlockSize(config.sdoBlockSize);
        mSdo->setTimeout(config.sdoTimeoutMs);
        mSdo->setCrcSupported(config.sdoCrc);
        mUsdo.reset(new UsdoServer(mDevice.get(), mOd.get()));
    }
    mNmt.reset(new SimNmtSlave(mDevice.get()));
    mEmcy.reset(new SimEmcyProducer(mDevice.get()));
    mTpdo.reset(new SimTpdo(mDevice.get()));
    connect(adapter, &AbstractCanAdapter::newCanMessage, this, &SimNode::onFrame, Qt::DirectConnection);
}

SimNode::~SimNode()
{
    if (mAdapter)
        disconnect(mAdapter, nullptr, this, nullptr);
    mUsdo.reset(); // its handler goes before the device
}

quint8 SimNode::nodeId() const
{
    return mDevice->nodeId();
}

void SimNode::start()
{
    mDevice->setHeartbeatTime(mConfig.heartbeatMs);
    mDevice->start();
    if (mConfig.operational && mDevice->isConfigured())
        mNmt->execute(SimNmtSlave::Start);
}

void SimNode::onFrame(CAN::CanRxMessage* frame)
{
    if (frame->echo || frame->message.id != SimLssSlave::RequestId)
        return;
    bool follow = false;
    QList<CAN::CanMessage> answers;
    {
        std::lock_guard<std::mutex> guard(mLssLock);
        answers = mLss.handle(frame->message);
        follow = frame->message.data[0] == 0x04 || frame->message.data[0] == 0x17;
    }
    for (CAN::CanMessage& m : answers) {
        if (mAdapter)
            mAdapter->write(&m);
    }
    if (follow) // a node-ID to take or a configuration to store: in the owner's thread
        QMetaObject::invokeMethod(this, &SimNode::applyLss, Qt::QueuedConnection);
}

void SimNode::applyLss()
{
    bool changed = false, storeNow = false;
    quint8 node = 0, bitTiming = 0;
    {
        std::lock_guard<std::mutex> guard(mLssLock);
        changed = mLss.takeNodeIdChange();
        storeNow = mLss.takeStoreRequest();
        node = mLss.pendingNodeId();
        bitTiming = mLss.bitTimingIndex();
        if (changed)
            node = mLss.activeNodeId();
    }
    if (storeNow)
        Q_EMIT configurationStored(store(node, bitTiming));
    if (!changed)
        return;
    // The new node-ID takes effect as after a communication reset: boot-up with it.
    mDevice->setNodeId(node);
    if (mSdo)
        mSdo->setNodeId(node);
    const quint8 od = node == SimLssSlave::Unconfigured ? 0 : node;
    mOd->setValue(0x1200, 1, le32(0x600u + od));
    mOd->setValue(0x1200, 2, le32(0x580u + od));
    start();
    Q_EMIT nodeIdChanged(node);
}

bool SimNode::store(quint8 nodeId, quint8 bitTiming) const
{
    if (mConfig.storeFile.isEmpty())
        return false;
    std::lock_guard<std::mutex> guard(storeLock());
    QStringList lines;
    QFile in(mConfig.storeFile);
    const QString key = identityKey(mConfig.identity);
    if (in.open(QIODevice::ReadOnly | QIODevice::Text)) {
        while (!in.atEnd()) {
            const QString line = QString::fromLatin1(in.readLine()).trimmed();
            if (!line.isEmpty() && !line.startsWith(key))
                lines << line;
        }
    }
    lines << QStringLiteral("%1 %2 %3").arg(key).arg(nodeId, 2, 16, QLatin1Char('0')).arg(bitTiming, 2, 16, QLatin1Char('0'));
    QSaveFile out(mConfig.storeFile);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Text))
        return false;
    out.write(lines.join(QLatin1Char('\n')).toLatin1() + '\n');
    return out.commit();
}
