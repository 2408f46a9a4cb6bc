#ifndef USDOEXPEDITEDCLIENT_H
#define USDOEXPEDITEDCLIENT_H

#include "canopenservice.h"
#include <QPointer>
#include <QVariant>
#include <QVector>

class QTimer;

// Where a routed USDO request goes: gateway node, destination network and
// node, and this client's own network.
struct UsdoRoute {
    bool active = false;
    quint8 gateway = 0, network = 0, serverNode = 0, sourceNetwork = 0;
};

// Reads or writes one object dictionary entry with a single USDO request and
// a single answer on CANopen FD (up to 56 data bytes). Destination node, data
// type and length travel in the frame; each request carries a session number.
// Used from the thread that owns it; answers arrive there by queued signal.
class CANOPENMASTER_EXPORT USDOExpeditedClient : public CANopenService
{
    Q_OBJECT
public:
    static constexpr quint32 DefaultTimeoutMs = 2000;
    static constexpr quint8 AbortTimeout = 0x12;   // USDO time out error
    static constexpr int MaxValueBytes = 56;       // one FD frame's worth

    explicit USDOExpeditedClient(QObject* parent = nullptr);
    USDOExpeditedClient(quint8 localNode, quint8 serverNode, CanScheduler* scheduler, QObject* parent = nullptr);
    ~USDOExpeditedClient() override;

    CAN::RetType setNodes(quint8 localNode, quint8 serverNode);
    void setRouting(bool active, quint8 gateway, quint8 network, quint8 serverNode);
    CAN::RetType setCanScheduler(CanScheduler* scheduler);
    CAN::RetType setSdoTimeout(quint32 ms);
    quint32 getSdoTimeout() const { return sdoTimeout; }

    CAN::RetType read(quint16 idx, quint8 sub, CAN::CANopenDataType type);
    CAN::RetType write(quint16 idx, quint8 sub, CAN::CANopenDataType type, QVariant value);
    // Ends a running transfer; a non-zero code (its low byte) is sent as a USDO abort.
    CAN::RetType abort(quint32 abortCode);
    bool isBusy() const { return busy != 0; }
    quint8 getSessionId() const { return sessionId; }

    // Frame builders, pure. `value` holds the encoded bytes of a download.
    using Route = UsdoRoute;
    static CAN::CanMessage uploadFrame(quint8 localNode, quint8 serverNode, quint8 session, quint16 idx,
                                       quint8 sub, const Route& route = Route());
    static CAN::CanMessage downloadFrame(quint8 localNode, quint8 serverNode, quint8 session, quint16 idx,
                                         quint8 sub, CAN::CANopenDataType type, const QByteArray& value,
                                         const Route& route = Route());
    static CAN::CanMessage abortFrame(quint8 localNode, quint8 serverNode, quint8 session, quint16 idx,
                                      quint8 sub, quint8 code);
    // The value's bytes as a download carries them; empty when the type has
    // no expedited USDO form or a string is too long.
    static QByteArray encodeValue(CAN::CANopenDataType type, const QVariant& value);

Q_SIGNALS:
    void resultReceived(quint16 index, quint8 sub, QVariant value);
    void errorReceived(quint16 index, quint8 sub, quint32 errorCode);

public Q_SLOTS:
    void newCanMessageReceived(CAN::CanRxMessage message) override;
    void timeout();

protected:
    void endTransfer();
    Route route() const;
    CAN::RetType start(CAN::CanMessage frame, quint32 dir);

    quint8 localNode = 0x29;
    quint8 serverNode = 0;
    quint8 sourceNetwork = 0;
    quint8 routingNetwork = 0;
    quint8 routingServerNode = 0;
    bool routingActive = false;
    quint8 routingGateway = 0;
    quint32 rxCanId = 0x580;
    quint32 txCanId = 0x629;
    quint16 index = 0;
    quint8 subIndex = 0;
    CAN::CANopenDataType dataType = CAN::UNSIGNED32;
    quint32 sdoTimeout = DefaultTimeoutMs;
    QPointer<CanSender> canSender;
    QVector<QPointer<CanSender>> broadcastSenders; // 0x601..0x67F while serverNode is 0
    QTimer* timer = nullptr;
    QVariant writeValue;
    quint32 busy = 0;
    quint32 direction = 0; // 1 upload, 2 download, 3 aborted
    quint8 sessionId = 0;

private:
    void init();
    void registerReceivers();
    void releaseReceivers();
};

#endif
