#include "sdoblockclient.h"

#include <QDebug>
#include <QTimer>
#include <cstring>

namespace {
constexpr quint32 MaxReserve = 1u << 20; // the server's size is only a hint
constexpr int TxQueueRetryMs = 10;
} // namespace

SDOBlockClient::SDOBlockClient(QObject* parent)
    : SDOExpeditedClient(parent)
{
    init();
}

SDOBlockClient::SDOBlockClient(quint32 clientRxCobId, quint32 serverCobId, CanScheduler* scheduler,
                               QObject* parent)
    : SDOExpeditedClient(clientRxCobId, serverCobId, scheduler, parent)
{
    init();
}

void SDOBlockClient::init()
{
    connect(this, &SDOBlockClient::sendBlock, this, &SDOBlockClient::sendBlockMessages);
    connect(this, &SDOBlockClient::sendLast, this, &SDOBlockClient::sendLastMessage);
    connect(this, &SDOBlockClient::sendAbort, this, &SDOBlockClient::letssendAbort);
    // The download's pacing: a zero-interval timer fires once per pass of
    // the event loop, so that frames and timers are handled between two
    // segments, without posting an event (and waking the loop) per segment.
    mPump = new QTimer(this);
    mPump->setInterval(0);
    connect(mPump, &QTimer::timeout, this, &SDOBlockClient::pumpSegment);
}

SDOBlockClient::~SDOBlockClient()
{
    detachCore();
}

// ---------------------------------------------------------------- frames

CAN::CanMessage SDOBlockClient::initiateDownloadFrame(quint32 cobId, quint16 idx, quint8 sub, quint32 size)
{
    // ccs 6, cc 0 (no CRC), s 1, cs 0
    return sdoFrame(cobId, 0xC2, idx, sub, size);
}

CAN::CanMessage SDOBlockClient::segmentFrame(quint32 cobId, quint8 seq, bool last, const char* sevenBytes)
{
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = last ? quint8(seq | 0x80) : seq;
    std::memcpy(m.data + 1, sevenBytes, 7);
    return m;
}

CAN::CanMessage SDOBlockClient::endDownloadFrame(quint32 cobId, quint8 unused)
{
    // ccs 6, n << 2, cs 1; bytes 1-2 would carry the CRC: zero
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = quint8(0xC1 | ((unused & 0x07) << 2));
    return m;
}

CAN::CanMessage SDOBlockClient::initiateUploadFrame(quint32 cobId, quint16 idx, quint8 sub, quint8 blksize)
{
    // ccs 5, cc 1, cs 0; byte 4 block size, byte 5 protocol switch threshold 0
    return sdoFrame(cobId, 0xA4, idx, sub, blksize);
}

CAN::CanMessage SDOBlockClient::startUploadFrame(quint32 cobId)
{
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = 0xA3;
    return m;
}

CAN::CanMessage SDOBlockClient::confirmBlockFrame(quint32 cobId, quint8 ack, quint8 blksize)
{
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = 0xA2;
    m.data[1] = ack;
    m.data[2] = blksize;
    return m;
}

CAN::CanMessage SDOBlockClient::endUploadConfirmFrame(quint32 cobId)
{
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = 0xA1;
    return m;
}

quint8 SDOBlockClient::progressPercent(quint32 done, quint32 total)
{
    if (total == 0)
        return 100;
    return quint8((quint64(done) * 100) / total);
}

// ---------------------------------------------------------------- requests

QByteArray SDOBlockClient::getCurrentlyReceivedData() const
{
    std::lock_guard<CanMutex> guard(lock());
    return QByteArray(data.constData(), data.size());
}

CAN::RetType SDOBlockClient::write(quint16 idx, quint8 sub, QByteArray value)
{
    return runLocked([&]() -> CAN::RetType {
        if (blockState != 0)
            return CAN::Busy;
        if (!hasAdapterLocked())
            return CAN::Error;
        setTransferOptionLocked(true);
        data.resize(value.size() + 7);
        std::memcpy(data.data(), value.constData(), size_t(value.size()));
        std::memset(data.data() + value.size(), 0, 7);
        size = remaining = quint32(value.size());
        offset = 0;
        lastPercent = 0;
        ackSeq = 0;
        seqNo = 0;
        blockSize = 0;
        index = idx;
        subIndex = sub;
        ++mPumpTicket;
        beginTransferLocked();
        if (sendLocked(initiateDownloadFrame(serverCobId, idx, sub, size)) != CAN::Ok) {
            setTransferOptionLocked(false);
            return CAN::Error;
        }
        superviseLocked(multiFrameTimeoutLocked());
        blockState = 1;
        direction = 2;
        return CAN::Ok;
    });
}

CAN::RetType SDOBlockClient::read(quint16 idx, quint8 sub)
{
    return runLocked([&]() -> CAN::RetType {
        if (blockState != 0)
            return CAN::Busy;
        if (!hasAdapterLocked())
            return CAN::Error;
        setTransferOptionLocked(true);
        data.clear();
        size = offset = remaining = 0;
        lastPercent = 0;
        ackSeq = 0;
        blockSize = UploadBlockSize;
        index = idx;
        subIndex = sub;
        ++mPumpTicket;
        beginTransferLocked();
        if (sendLocked(initiateUploadFrame(serverCobId, idx, sub, UploadBlockSize)) != CAN::Ok) {
            setTransferOptionLocked(false);
            return CAN::Error;
        }
        superviseLocked(multiFrameTimeoutLocked());
        blockState = 1;
        direction = 1;
        return CAN::Ok;
    });
}

CAN::RetType SDOBlockClient::abort(quint32 abortCode)
{
    return runLocked([&]() -> CAN::RetType {
        stopTimerLocked();
        direction = 3;
        blockState = 0;
        ++mPumpTicket;
        if (abortCode != 0)
            sendLocked(abortFrame(serverCobId, index, subIndex, abortCode));
        setTransferOptionLocked(false);
        queueErrorLocked(abortCode);
        return CAN::Ok;
    });
}

// ---------------------------------------------------------------- download

void SDOBlockClient::sendBlockMessages(quint16)
{
    runLocked([&] {
        if (blockState != 2 || direction != 2)
            return;
        seqNo = 1;
        writeSegmentLocked(++mPumpTicket);
    });
}

void SDOBlockClient::writeNextBlock()
{
    runLocked([&] { writeSegmentLocked(mPumpTicket); });
}

// Called in the engine's thread, under the lock.
void SDOBlockClient::scheduleSegment(quint32 ticket, int delayMs)
{
    if (delayMs == 0) {
        mPumpDue = true;
        mPumpDueTicket = ticket;
        if (!mPump->isActive())
            mPump->start();
        return;
    }
    QTimer::singleShot(delayMs, this, [this, ticket] { runLocked([&] { writeSegmentLocked(ticket); }); });
}

void SDOBlockClient::pumpSegment()
{
    runLocked([&] {
        mPumpDue = false;
        writeSegmentLocked(mPumpDueTicket);
        if (!mPumpDue)
            mPump->stop(); // the block is out, or the transfer ended
    });
}

void SDOBlockClient::writeSegmentLocked(quint32 ticket)
{
    if (ticket != mPumpTicket || blockState != 2 || direction != 2)
        return;
    if (!inEngineThread()) {
        // Pacing and its timers belong to the engine's thread.
        QMetaObject::invokeMethod(this, [this, ticket] { runLocked([&] { writeSegmentLocked(ticket); }); },
                                  Qt::QueuedConnection);
        return;
    }
    if (seqNo > blockSize) {
        blockCompleteLocked();
        return;
    }
    const char* bytes = data.constData() + offset;
    offset += 7;
    const bool last = offset >= size;
    const CAN::RetType r = sendLocked(segmentFrame(serverCobId, seqNo, last, bytes));
    if (r == CAN::TxQueueFull) {
        // The driver's queue is full: take the bytes back and try again later
        // (the last segment too, so that a full queue never costs the transfer).
        offset -= 7;
        scheduleSegment(ticket, TxQueueRetryMs);
        return;
    }
    if (last) {
        blockState = 4; // the server's confirmation leads to the end frame
        return;
    }
    if (r != CAN::Ok)
        return; // given up; the time-out ends the transfer
    ++seqNo;
    if (seqNo > blockSize)
        blockCompleteLocked();
    else
        scheduleSegment(ticket, 0);
}

void SDOBlockClient::blockCompleteLocked()
{
    // Wait for the server's confirmation of this block.
    touchLocked();
    queueLocked(NoticeProgress, progressPercent(offset, size));
}

void SDOBlockClient::sendLastMessage()
{
    runLocked([&] {
        if (blockState != 4)
            return;
        sendLocked(endDownloadFrame(serverCobId, quint8((offset - size) & 0x07)));
        blockState = 3;
    });
}

void SDOBlockClient::letssendAbort()
{
    runLocked([&] { sendLocked(abortFrame(serverCobId, index, subIndex, AbortGeneral)); });
}

void SDOBlockClient::handleDownloadLocked(const CAN::CanMessage& frame)
{
    switch (blockState) {
    case 1:
        // Initiate answer: the server chooses the block size.
        blockSize = frame.data[4];
        blockState = 2;
        queueLocked(NoticeSendBlock, blockSize);
        break;
    case 2: {
        const quint8 ackseq = frame.data[1];
        if (ackseq < blockSize) {
            // Segments are not sent again: the transfer ends.
            qDebug() << Q_FUNC_INFO << "not everything acknowledged" << ackseq;
            ++mPumpTicket;
            blockState = 0;
            stopTimerLocked();
            queueLocked(NoticeSendAbort);
            queueErrorLocked(AbortGeneral);
            setTransferOptionLocked(false);
            break;
        }
        if (frame.data[2] != 0)
            blockSize = frame.data[2];
        if (offset < size)
            queueLocked(NoticeSendBlock, blockSize);
        break;
    }
    case 4:
        // Confirmation of the last block (its ackseq is not checked).
        queueLocked(NoticeSendLast);
        break;
    case 3:
        endLocked();
        queueLocked(NoticeProgress, 100);
        queueResultLocked(QVariant(int(0)));
        break;
    default:
        break;
    }
}

// ---------------------------------------------------------------- upload

void SDOBlockClient::sendBlockInitiateEnd()
{
    runLocked([&] { sendBlockInitiateEndLocked(); });
}

void SDOBlockClient::sendBlockInitiateEndLocked()
{
    sendLocked(startUploadFrame(serverCobId));
    ackSeq = 0;
}

void SDOBlockClient::sendConfirmBlock()
{
    runLocked([&] { sendConfirmBlockLocked(); });
}

void SDOBlockClient::sendConfirmBlockLocked()
{
    sendLocked(confirmBlockFrame(serverCobId, quint8(ackSeq), blockSize));
    ackSeq = 0;
    queueLocked(NoticeProgress, progressPercent(quint32(data.size()), size));
}

void SDOBlockClient::sendLastBlockReadConf()
{
    runLocked([&] { sendLastBlockReadConfLocked(); });
}

void SDOBlockClient::sendLastBlockReadConfLocked()
{
    sendLocked(endUploadConfirmFrame(serverCobId));
    blockState = 0;
}

void SDOBlockClient::handleUploadLocked(const CAN::CanMessage& frame)
{
    const quint8 command = frame.data[0];
    switch (blockState) {
    case 1:
        qDebug() << Q_FUNC_INFO << "1. Antwort (Block Read)";
        size = framePayload(frame);
        data.reserve(int(qMin(size, MaxReserve)) + 1);
        blockState = 2;
        // Sent from here at once, in the order a deferred call would send it.
        sendBlockInitiateEndLocked();
        break;
    case 2:
        // Every segment restarts the time-out, so that a server that falls
        // silent in the middle of a block still ends the transfer.
        // Sequence numbers are not checked for gaps or order.
        ackSeq = command;
        data.append(reinterpret_cast<const char*>(frame.data + 1), 7);
        if (ackSeq <= 127 && ackSeq >= blockSize)
            sendConfirmBlockLocked(); // block full
        if (command & 0x80) {
            ackSeq = command & 0x7F; // last segment: confirm it and wait for the end
            sendConfirmBlockLocked();
            blockState = 3;
        }
        break;
    case 3: {
        qDebug() << Q_FUNC_INFO << "Block end byte0" << QString::number(command, 16);
        // The end frame's n field and CRC are not looked at.
        if (size != 0 && quint32(data.size()) > size)
            data.truncate(int(size));
        stopTimerLocked();
        sendLastBlockReadConfLocked();
        queueLocked(NoticeProgress, 100);
        queueResultLocked(QVariant(QByteArray(data.constData(), data.size())));
        setTransferOptionLocked(false);
        break;
    }
    default:
        break;
    }
}

// ---------------------------------------------------------------- answers, time-out

void SDOBlockClient::newCanMessageReceived(CAN::CanRxMessage message)
{
    SDOExpeditedClient::newCanMessageReceived(message);
}

void SDOBlockClient::handleFrameLocked(const CAN::CanMessage& frame)
{
    if (frame.id != clientRxCobId || blockState == 0)
        return;
    touchLocked();
    if (frame.data[0] == 0x80) {
        endLocked();
        queueErrorLocked(framePayload(frame));
        return;
    }
    if (direction == 2)
        handleDownloadLocked(frame);
    else if (direction == 1)
        handleUploadLocked(frame);
}

void SDOBlockClient::endLocked()
{
    ++mPumpTicket;
    blockState = 0;
    stopTimerLocked();
    setTransferOptionLocked(false);
}

void SDOBlockClient::timeoutSegmented()
{
    runLocked([&] { blockTimeoutLocked(); });
}

void SDOBlockClient::expireLocked()
{
    blockTimeoutLocked();
}

void SDOBlockClient::blockTimeoutLocked()
{
    ++mPumpTicket;
    endTransferOnTimeoutLocked(blockState);
}

bool SDOBlockClient::transferRunningLocked() const
{
    return blockState != 0;
}

void SDOBlockClient::deliverNotice(const Notice& notice)
{
    switch (notice.kind) {
    case NoticeProgress:
        Q_EMIT progress(quint8(notice.code));
        break;
    case NoticeSendBlock:
        Q_EMIT sendBlock(quint16(notice.code));
        break;
    case NoticeSendLast:
        Q_EMIT sendLast();
        break;
    case NoticeSendAbort:
        Q_EMIT sendAbort();
        break;
    default:
        break;
    }
}
