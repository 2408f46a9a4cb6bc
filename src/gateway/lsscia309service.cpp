#include "lsscia309service.h"

#include "abstractcanadapter.h"

#include <QStringList>

LSSCiA309Service::LSSCiA309Service(QObject* parent)
    : LSSService(parent)
{
    mAnswerTimer.setSingleShot(true);
    mAnswerTimer.setInterval(AnswerTimeoutMs);
    connect(&mAnswerTimer, &QTimer::timeout, this, &LSSCiA309Service::handleTimeout);
}

LSSCiA309Service::LSSCiA309Service(CanScheduler* scheduler, QObject* parent)
    : LSSCiA309Service(parent)
{
    setCanScheduler(scheduler);
}

LSSCiA309Service::~LSSCiA309Service()
{
    // A command still waiting returns 5 once its loop is left.
    if (mLoop.isRunning())
        mLoop.exit();
}

void LSSCiA309Service::setCanScheduler(CanScheduler* scheduler)
{
    disconnect(mResponseConnection);
    mScheduler = scheduler;
    if (AbstractCanAdapter* a = adapter())
        mResponseConnection = connect(a, &AbstractCanAdapter::newCiA309Response, this,
                                      &LSSCiA309Service::newResponseString);
    mAnswerTimer.setInterval(AnswerTimeoutMs);
}

CAN::RetType LSSCiA309Service::commandWithAnswer(const QString& command)
{
    AbstractCanAdapter* a = adapter();
    if (!a)
        return CAN::Error;
    qint16 sequence = -1;
    const CAN::RetType sent = a->sendCiA309Request(command, sequence);
    if (sent != CAN::Ok)
        return sent;
    awaitedSequence = quint16(sequence);
    commandResult = CAN::Error;
    mAnswerTimer.start();
    mLoop.exec(); // other signals, answers to other services included, go on meanwhile
    return commandResult;
}

CAN::RetType LSSCiA309Service::commandWithoutAnswer(const QString& command)
{
    AbstractCanAdapter* a = adapter();
    return a ? a->sendCiA309Command(command) : CAN::Error;
}

void LSSCiA309Service::newResponseString(QString response)
{
    // Lines that arrive together come in one text: each is an answer of its own.
    for (const QString& line : response.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (awaitedSequence == NoSequence)
            return;
        const QStringList pieces = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (pieces.isEmpty())
            continue;
        QString first = pieces.first();
        first.remove(QLatin1Char('[')).remove(QLatin1Char(']'));
        bool ok = false;
        const uint sequence = first.toUInt(&ok);
        if (!ok || sequence != awaitedSequence)
            continue;
        awaitedSequence = NoSequence;
        if (line.contains(QLatin1String("ERROR"), Qt::CaseInsensitive))
            commandResult = CAN::Error;
        else if (line.contains(QLatin1String("OK"), Qt::CaseInsensitive))
            commandResult = CAN::Ok;
        mAnswerTimer.stop();
        mLoop.quit();
    }
}

void LSSCiA309Service::handleTimeout()
{
    awaitedSequence = NoSequence;
    mLoop.quit();
}

CAN::RetType LSSCiA309Service::switchModeGlobal(LSSMaster::LssGlobalState state)
{
    return commandWithAnswer(QStringLiteral("lss_switch_glob %1").arg(state != 0 ? 1 : 0));
}

CAN::RetType LSSCiA309Service::storeConfiguration()
{
    return commandWithAnswer(QStringLiteral("lss_store"));
}

CAN::RetType LSSCiA309Service::configureNodeId(quint8 nodeId)
{
    return commandWithAnswer(QStringLiteral("lss_set_node %1").arg(nodeId));
}

CAN::RetType LSSCiA309Service::identifyNonConfigSlaves()
{
    return commandWithoutAnswer(QStringLiteral("lss_ident_nonconf"));
}

CAN::RetType LSSCiA309Service::switchModeSelective(quint32 vendorId, quint32 productCode, quint32 revisionNumber,
                                                   quint32 serialNumber)
{
    return commandWithAnswer(QStringLiteral("lss_switch_sel 0x%1 0x%2 0x%3 0x%4")
                                 .arg(vendorId, 0, 16)
                                 .arg(productCode, 0, 16)
                                 .arg(revisionNumber, 0, 16)
                                 .arg(serialNumber, 0, 16));
}

CAN::RetType LSSCiA309Service::classicalScan(quint32 vendorId, quint32 productCode, quint32 revisionLow,
                                            quint32 revisionHigh, quint32 serialLow, quint32 serialHigh)
{
    // The vendor-ID goes in decimal, the only field so written.
    return commandWithoutAnswer(QStringLiteral("lss_identity %1 0x%2 0x%3 0x%4 0x%5 0x%6")
                                    .arg(vendorId)
                                    .arg(productCode, 0, 16)
                                    .arg(revisionLow, 0, 16)
                                    .arg(revisionHigh, 0, 16)
                                    .arg(serialLow, 0, 16)
                                    .arg(serialHigh, 0, 16));
}

CAN::RetType LSSCiA309Service::activateBitTiming(quint16 switchDelay)
{
    return commandWithAnswer(QStringLiteral("lss_activate_bitrate %1").arg(switchDelay));
}

CAN::RetType LSSCiA309Service::inquireNodeId()
{
    // Sent without waiting: the node-ID in the answer is never delivered.
    return commandWithoutAnswer(QStringLiteral("lss_get_node_node"));
}

CAN::RetType LSSCiA309Service::configureBitTiming(quint8 tableSelector, quint8 tableIndex)
{
    // The selector is written in decimal after the "0x" (the same for the standard table 0).
    return commandWithAnswer(QStringLiteral("lss_conf_bitrate 0x%1 0x%2").arg(tableSelector).arg(tableIndex, 0, 16));
}
