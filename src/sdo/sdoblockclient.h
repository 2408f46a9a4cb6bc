#ifndef SDOBLOCKCLIENT_H
#define SDOBLOCKCLIENT_H

#include "sdoexpeditedclient.h"

#include <QByteArray>

class QTimer;

// Reads and writes long values with CiA 301 block transfer: blocks of up to
// 127 segments of 7 bytes, each block confirmed once by the server. No CRC is
// computed or checked.
//
// Threads as described in sdoexpeditedclient.h. The download's segments are
// paced in the engine's thread, one per pass of its event loop, so that
// frames and timers are handled between two segments; the server's answers, and in
// an upload the start, confirmation and end frames, are handled and sent in
// the adapter's receive thread.
class CANOPENMASTER_EXPORT SDOBlockClient : public SDOExpeditedClient
{
    Q_OBJECT
public:
    static constexpr quint8 UploadBlockSize = 127;

    explicit SDOBlockClient(QObject* parent = nullptr);
    SDOBlockClient(quint32 clientRxCobId, quint32 serverCobId, CanScheduler* scheduler, QObject* parent = nullptr);
    ~SDOBlockClient() override;

    CAN::RetType read(quint16 idx, quint8 sub);
    CAN::RetType write(quint16 idx, quint8 sub, QByteArray value);
    QByteArray getCurrentlyReceivedData() const;
    CAN::RetType abort(quint32 abortCode) override;

    // Frame building (pure).
    static CAN::CanMessage initiateDownloadFrame(quint32 cobId, quint16 idx, quint8 sub, quint32 size);
    static CAN::CanMessage segmentFrame(quint32 cobId, quint8 seqNo, bool last, const char* sevenBytes);
    // End of a download: n = bytes of the last segment without data; no CRC.
    static CAN::CanMessage endDownloadFrame(quint32 cobId, quint8 unused);
    static CAN::CanMessage initiateUploadFrame(quint32 cobId, quint16 idx, quint8 sub, quint8 blockSize);
    static CAN::CanMessage startUploadFrame(quint32 cobId);
    static CAN::CanMessage confirmBlockFrame(quint32 cobId, quint8 ackSeq, quint8 blockSize);
    static CAN::CanMessage endUploadConfirmFrame(quint32 cobId);
    // offset * 100 / size as an 8-bit value, 100 without size.
    static quint8 progressPercent(quint32 offset, quint32 size);

Q_SIGNALS:
    void progress(quint8 percentValue);
    void sendBlock(quint16 blocksize);
    void sendLast();
    void sendAbort();

public Q_SLOTS:
    void newCanMessageReceived(CAN::CanRxMessage message) override;
    void timeoutSegmented();
    void sendBlockMessages(quint16 blockSize);
    void sendLastMessage();
    void letssendAbort();
    void sendLastBlockReadConf();
    void sendBlockInitiateEnd();
    void sendConfirmBlock();
    void writeNextBlock();

protected:
    enum BlockNotice { NoticeSendBlock = NoticeEngine, NoticeSendLast, NoticeSendAbort };

    bool transferRunningLocked() const override;
    void handleFrameLocked(const CAN::CanMessage& frame) override;
    void expireLocked() override;
    void deliverNotice(const Notice& notice) override;

    QByteArray data;
    quint32 size = 0;
    quint32 offset = 0;
    quint32 remaining = 0;
    quint32 blockState = 0; // 0 idle, 1 initiate sent, 2 block, 3 end phase, 4 last download segment sent
    quint8 lastPercent = 0;
    quint32 ackSeq = 0;
    quint8 blockSize = 0;
    quint8 seqNo = 0;

private Q_SLOTS:
    void pumpSegment();

private:
    void init();
    void handleDownloadLocked(const CAN::CanMessage& frame);
    void handleUploadLocked(const CAN::CanMessage& frame);
    void writeSegmentLocked(quint32 ticket);
    void scheduleSegment(quint32 ticket, int delayMs);
    void blockCompleteLocked();
    void sendBlockInitiateEndLocked();
    void sendConfirmBlockLocked();
    void sendLastBlockReadConfLocked();
    void blockTimeoutLocked();
    void endLocked();

    // Identifies the running chain of paced segments; a new block, an end or
    // an abort starts a new one, so that a call still queued does nothing.
    quint32 mPumpTicket = 0;
    QTimer* mPump = nullptr;    // engine's thread only
    bool mPumpDue = false;      // guarded by the lock
    quint32 mPumpDueTicket = 0; // guarded by the lock
};

#endif
