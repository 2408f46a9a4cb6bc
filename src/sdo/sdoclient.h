#ifndef SDOCLIENT_H
#define SDOCLIENT_H

#include "canopenservice.h"
#include <QByteArray>
#include <QMap>
#include <QPointer>
#include <QVariant>

class SDOExpeditedClient;
class SDOSegmentedClient;
class SDOBlockClient;
class USDOExpeditedClient;
class SDOCiA309Client;

// Reads and writes one object dictionary entry of a remote node. Owns one
// engine per transfer kind, picks the engine for each request from the data
// type, the value's size and the process-wide switches below, starts the
// transfer and returns at once; the outcome arrives by signal.
//
// Transfer kinds: 0 none fits, 1 routing indication in progress, 2 SDO
// expedited, 3 SDO segmented, 4 USDO expedited, 5 USDO segmented, 6 USDO bulk,
// 7 SDO block, 8 CiA 309-3 gateway. The USDO segmented and bulk engines are
// not part of this build: requests that would need them are refused with 2.
class CANOPENMASTER_EXPORT SDOClient : public CANopenService
{
    Q_OBJECT
public:
    enum TransferKind : quint32 {
        KindNone = 0,
        KindRouting = 1,
        KindExpedited = 2,
        KindSegmented = 3,
        KindUsdoExpedited = 4,
        KindUsdoSegmented = 5,
        KindUsdoBulk = 6,
        KindBlock = 7,
        KindGateway = 8
    };

    explicit SDOClient(QObject* parent = nullptr);
    SDOClient(quint32 clientRxCobId, quint32 serverCobId, CanScheduler* scheduler, QObject* parent = nullptr);
    ~SDOClient() override;

    CAN::RetType setCobIds(quint32 clientRxCobId, quint32 serverCobId);
    CAN::RetType setCanScheduler(CanScheduler* scheduler);
    CanScheduler* getCanScheduler() const { return mScheduler.data(); }
    CAN::RetType setSdoTimeout(quint32 ms);
    quint32 getSdoTimeout() const;

    CAN::RetType read(quint16 index, quint8 sub, CAN::CANopenDataType type);
    CAN::RetType write(quint16 index, quint8 sub, CAN::CANopenDataType type, QVariant value);
    CAN::RetType abort(quint32 abortCode);
    QByteArray getCurrentlyReceivedData() const;
    bool isBusy() const { return busy; }
    quint32 getTransferKind() const { return transferKind; }

    void setFastSegmentedDownload(bool on, quint8 count);
    void activateUSDO(bool on, quint8 localNode);
    void setRouting(quint16 network, quint8 gatewayNode);

    // direction: 2 download (write), 0 upload (read).
    static quint32 getSdoTypefromDataType(CAN::CANopenDataType type, quint32 size, quint8 direction);
    static QString interpretSdoAbort(quint32 code);
    static QString interpretUsdoAbort(quint32 code);

    // Process-wide settings, shared by every SDOClient; meant to be set from
    // the thread that runs the transfers, before they start.
    static bool mUseBlockTransfer;
    static quint32 mBlockTreshold;
    static bool mFastSeg;
    static quint8 mFastSegCnt;
    static bool mUseUSDO;
    static bool mRoutingActive;
    static quint16 mRoutingNetwork;
    static quint16 mRoutingGatewayInLocalNetwork;
    static QMap<quint8, QString> mAbortCodeMap;

    // SDO network indication (routing request) sent to the gateway node.
    static CAN::CanMessage routingFrame(quint8 gatewayNode, quint16 network, quint8 serverNode);

Q_SIGNALS:
    void resultReceived(quint16 index, quint8 sub, QVariant value);
    void errorReceived(quint16 index, quint8 sub, quint32 errorCode);
    void progress(quint8 percentValue);
    void opError(quint16 index, quint8 sub, CAN::RetType error);

public Q_SLOTS:
    void resultIndication(quint16 index, quint8 sub, QVariant value);
    void errorIndication(quint16 index, quint8 sub, quint32 errorCode);
    void progressIndication(quint8 percentValue);
    void canMessageIndication(CAN::CanRxMessage message);
    void sendRoutingError();

private:
    void init();
    void setupConnections();
    CAN::RetType updateCobIds(quint32 clientRxCobId, quint32 serverCobId);
    void registerRoutingReceiver();
    // 0: no routing needed or its answer came; otherwise the code to return.
    CAN::RetType routeRequest(quint16 index, quint8 sub);
    void mysleep(quint16 ms, bool* flag);
    CAN::RetType failedStart(quint16 index, quint8 sub, CAN::RetType code);
    // The common start of read and write: the busy lock, the entry, the
    // routing indication; 0 to go on, else the code to return.
    CAN::RetType beginRequest(quint16 index, quint8 sub);
    // Hand a request to the engine of a transfer kind; started stays false without one.
    CAN::RetType startEngineRead(quint32 kind, quint16 index, quint8 sub, CAN::CANopenDataType type, bool& started);
    CAN::RetType startEngineWrite(quint32 kind, quint16 index, quint8 sub, CAN::CANopenDataType type,
                                  const QVariant& value, bool& started);
    quint8 serverNode() const { return quint8(serverCobId & 0xFF); }
    static void fillAbortCodeMap();

    QPointer<SDOExpeditedClient> expeditedClient;
    QPointer<SDOSegmentedClient> segmentedClient;
    QPointer<SDOBlockClient> blockClient;
    QPointer<USDOExpeditedClient> usdoExpeditedClient;
    QPointer<SDOCiA309Client> gatewayClient;
    QPointer<CanSender> routingSender;
    quint32 routingAbortCode = 0;
    quint16 index = 0;
    quint8 subIndex = 0;
    quint16 sdoTimeout = 2000;
    bool busy = false;
    quint32 transferKind = KindNone;
    quint32 serverCobId = 0;
    bool routingWaiting = false;
    quint8 usdoLocalNode = 0x29;
};

#endif
