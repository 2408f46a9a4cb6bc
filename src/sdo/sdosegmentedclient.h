#ifndef SDOSEGMENTEDCLIENT_H
#define SDOSEGMENTEDCLIENT_H

#include "sdoexpeditedclient.h"

#include <QByteArray>

// Reads and writes entries of any length in 7-byte segments (CiA 301
// segmented SDO), with an optional fast download that keeps two segments in
// flight. Threads as described in sdoexpeditedclient.h: each answer is
// handled, and the next segment sent, in the adapter's receive thread.
class CANOPENMASTER_EXPORT SDOSegmentedClient : public SDOExpeditedClient
{
    Q_OBJECT
public:
    explicit SDOSegmentedClient(QObject* parent = nullptr);
    SDOSegmentedClient(quint32 clientRxCobId, quint32 serverCobId, CanScheduler* scheduler,
                       QObject* parent = nullptr);
    ~SDOSegmentedClient() override;

    CAN::RetType read(quint16 idx, quint8 sub);
    CAN::RetType write(quint16 idx, quint8 sub, QByteArray value);
    void setFastSegmentedDownload(bool on, quint8 count);
    // The bytes received so far by an upload (or the value of a download).
    QByteArray getCurrentlyReceivedData() const;
    CAN::RetType abort(quint32 abortCode) override;

    // Frame building (pure).
    static CAN::CanMessage initiateDownloadFrame(quint32 cobId, quint16 idx, quint8 sub, quint32 size);
    // Command byte of a download segment: toggle, n unused bytes, last flag.
    static quint8 downloadSegmentCommand(bool toggle, bool last, quint8 unused);
    static CAN::CanMessage downloadSegmentFrame(quint32 cobId, quint8 command, const char* sevenBytes);
    static CAN::CanMessage uploadSegmentRequestFrame(quint32 cobId, bool toggle);
    // Progress after a segment: 100 without size, else offset * 100 / size as an 8-bit value.
    static quint8 progressPercent(quint32 offset, quint32 size);

Q_SIGNALS:
    void progress(quint8 percentValue);

public Q_SLOTS:
    void newSegmentedCanMessageReceived(CAN::CanRxMessage message);
    void timeoutSegmented();

protected:
    bool transferRunningLocked() const override;
    void handleFrameLocked(const CAN::CanMessage& frame) override;
    void expireLocked() override;
    void deliverNotice(const Notice& notice) override;

    QByteArray data;
    quint32 size = 0;
    quint32 offset = 0;
    quint32 remaining = 0;
    quint32 segState = 0; // 0 idle, 1 transfer running, 2 last download segment sent
    bool toggle = false;
    quint8 lastPercent = 0;
    quint32 segmentCount = 0;
    quint8 inFlight = 0;
    quint8 fastSegCnt = 0;
    bool fastSeg = false;

private:
    void sendNextSegmentLocked();
    void segmentedTimeoutLocked();
    void endLocked();
};

#endif
