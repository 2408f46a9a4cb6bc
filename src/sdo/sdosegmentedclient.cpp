#include "sdosegmentedclient.h"

#include <QDebug>
#include <cstring>

namespace {
// Upper bound of the buffer reserved up front for an upload: the size comes
// from the server and is only a hint.
constexpr quint32 MaxReserve = 1u << 20;
} // namespace

SDOSegmentedClient::SDOSegmentedClient(QObject* parent)
    : SDOExpeditedClient(parent)
{
}

SDOSegmentedClient::SDOSegmentedClient(quint32 clientRxCobId, quint32 serverCobId, CanScheduler* scheduler,
                                       QObject* parent)
    : SDOExpeditedClient(clientRxCobId, serverCobId, scheduler, parent)
{
}

SDOSegmentedClient::~SDOSegmentedClient()
{
    detachCore();
}

// ---------------------------------------------------------------- frames

CAN::CanMessage SDOSegmentedClient::initiateDownloadFrame(quint32 cobId, quint16 idx, quint8 sub, quint32 size)
{
    // ccs 1, e 0, s 1: segmented download with the size in bytes 4-7
    return sdoFrame(cobId, 0x21, idx, sub, size);
}

quint8 SDOSegmentedClient::downloadSegmentCommand(bool toggle, bool last, quint8 unused)
{
    // ccs 0 | t << 4 | n << 1 | c
    quint8 command = last ? quint8(1 + 2 * (unused & 0x07)) : quint8(0);
    if (toggle)
        command |= 0x10;
    return command;
}

CAN::CanMessage SDOSegmentedClient::downloadSegmentFrame(quint32 cobId, quint8 command, const char* sevenBytes)
{
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = command;
    std::memcpy(m.data + 1, sevenBytes, 7);
    return m;
}

CAN::CanMessage SDOSegmentedClient::uploadSegmentRequestFrame(quint32 cobId, bool toggle)
{
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = toggle ? 0x70 : 0x60; // ccs 3 | t << 4
    return m;
}

quint8 SDOSegmentedClient::progressPercent(quint32 offset, quint32 size)
{
    if (size == 0)
        return 100;
    // Taken after the segment, so the last one may report more than 100.
    return quint8((quint64(offset) * 100) / size);
}

// ---------------------------------------------------------------- requests

void SDOSegmentedClient::setFastSegmentedDownload(bool on, quint8 count)
{
    std::lock_guard<CanMutex> guard(lock());
    fastSeg = on;
    fastSegCnt = count;
}

QByteArray SDOSegmentedClient::getCurrentlyReceivedData() const
{
    std::lock_guard<CanMutex> guard(lock());
    return QByteArray(data.constData(), data.size()); // a copy of its own
}

CAN::RetType SDOSegmentedClient::write(quint16 idx, quint8 sub, QByteArray value)
{
    return runLocked([&]() -> CAN::RetType {
        // A refused request leaves the running transfer, and option 26, alone.
        if (segState != 0)
            return CAN::Busy;
        if (!hasAdapterLocked())
            return CAN::Error;
        setTransferOptionLocked(true);
        // The value and seven zero bytes, so that every segment copies seven.
        data.resize(value.size() + 7);
        std::memcpy(data.data(), value.constData(), size_t(value.size()));
        std::memset(data.data() + value.size(), 0, 7);
        size = remaining = quint32(value.size());
        offset = 0;
        lastPercent = 0;
        index = idx;
        subIndex = sub;
        segmentCount = 0;
        inFlight = 0; // unanswered segments of an earlier, aborted transfer do not count
        beginTransferLocked();
        if (sendLocked(initiateDownloadFrame(serverCobId, idx, sub, size)) != CAN::Ok) {
            setTransferOptionLocked(false);
            return CAN::Error;
        }
        superviseLocked(multiFrameTimeoutLocked());
        ++segmentCount;
        ++inFlight;
        segState = 1;
        toggle = false;
        direction = 2;
        return CAN::Ok;
    });
}

CAN::RetType SDOSegmentedClient::read(quint16 idx, quint8 sub)
{
    return runLocked([&]() -> CAN::RetType {
        if (segState != 0)
            return CAN::Busy;
        if (!hasAdapterLocked())
            return CAN::Error;
        setTransferOptionLocked(true);
        data.clear();
        size = offset = remaining = 0;
        lastPercent = 0;
        segmentCount = 0;
        inFlight = 0;
        index = idx;
        subIndex = sub;
        beginTransferLocked();
        if (sendLocked(sdoFrame(serverCobId, 0x40, idx, sub)) != CAN::Ok) {
            setTransferOptionLocked(false);
            return CAN::Error;
        }
        superviseLocked(multiFrameTimeoutLocked());
        segState = 1;
        toggle = false;
        direction = 1;
        return CAN::Ok;
    });
}

CAN::RetType SDOSegmentedClient::abort(quint32 abortCode)
{
    qDebug() << "CAN::RetType SDOSegmentedClient::abort(quint32)" << abortCode;
    return runLocked([&]() -> CAN::RetType {
        stopTimerLocked();
        direction = 3;
        segState = 0;
        if (abortCode != 0)
            sendLocked(abortFrame(serverCobId, index, subIndex, abortCode));
        setTransferOptionLocked(false);
        queueErrorLocked(abortCode);
        return CAN::Ok;
    });
}

// ---------------------------------------------------------------- state machine

void SDOSegmentedClient::sendNextSegmentLocked()
{
    if (direction == 3 || !mScheduler) {
        segState = 0;
        return;
    }
    CAN::CanMessage frame;
    if (direction == 2) {
        const char* bytes = data.constData() + offset;
        offset += 7;
        // An empty value ends at once: one last segment without data (n = 7)
        // after an initiate with size 0, as a server expects it.
        const bool last = offset >= size;
        if (last)
            segState = 2;
        frame = downloadSegmentFrame(serverCobId, downloadSegmentCommand(toggle, last, quint8(offset - size)), bytes);
    } else {
        offset += 7;
        frame = uploadSegmentRequestFrame(serverCobId, toggle);
    }
    sendLocked(frame); // a lost segment ends in the time-out
    ++inFlight;
    if (!toggle) {
        toggle = true;
        // Fast download: the toggle-1 segment follows the toggle-0 one at once.
        if (fastSeg && direction == 2 && segState != 2 && inFlight < fastSegCnt)
            sendNextSegmentLocked();
    } else {
        toggle = false;
    }
    const quint8 percent = progressPercent(offset, size);
    if (percent != lastPercent) {
        lastPercent = percent;
        queueLocked(NoticeProgress, percent);
    }
}

void SDOSegmentedClient::newSegmentedCanMessageReceived(CAN::CanRxMessage message)
{
    newCanMessageReceived(message);
}

void SDOSegmentedClient::endLocked()
{
    segState = 0;
    stopTimerLocked();
    setTransferOptionLocked(false);
}

void SDOSegmentedClient::handleFrameLocked(const CAN::CanMessage& frame)
{
    if (frame.id != clientRxCobId)
        return;
    if (inFlight != 0)
        --inFlight;
    if (segState == 0)
        return;
    touchLocked();
    const quint8 command = frame.data[0];
    if (command & 0x80) {
        // Abort from the server: reported with the entry the frame names.
        endLocked();
        queueErrorLocked(frameIndex(frame), frame.data[3], framePayload(frame));
        return;
    }
    if (direction == 2) {
        // Any answer advances the download; command and toggle are not compared.
        if (segState == 1 && !(command & 0x01)) {
            sendNextSegmentLocked();
        } else {
            endLocked();
            queueResultLocked(QVariant(int(0)));
        }
        return;
    }
    if (direction != 1)
        return;
    if (segmentCount == 0) {
        if ((command & 0x43) == 0x43) {
            // Expedited answer with size: 4 - n bytes from byte 4.
            const int n = (command >> 2) & 0x03;
            endLocked();
            queueResultLocked(QVariant(QByteArray(reinterpret_cast<const char*>(frame.data + 4), 4 - n)));
        } else {
            size = framePayload(frame);
            data.reserve(int(qMin(size, MaxReserve)) + 1);
            sendNextSegmentLocked();
        }
    } else {
        // Toggle and unused-byte count are not checked: all seven bytes are
        // kept, and cut to the indicated size at the end.
        data.append(reinterpret_cast<const char*>(frame.data + 1), 7);
        if (command & 0x01) {
            if (size != 0 && quint32(data.size()) > size)
                data.truncate(int(size));
            endLocked();
            queueResultLocked(QVariant(QByteArray(data.constData(), data.size())));
        } else {
            sendNextSegmentLocked();
        }
    }
    ++segmentCount;
}

// ---------------------------------------------------------------- time-out

void SDOSegmentedClient::timeoutSegmented()
{
    runLocked([&] { segmentedTimeoutLocked(); });
}

void SDOSegmentedClient::expireLocked()
{
    segmentedTimeoutLocked();
}

void SDOSegmentedClient::segmentedTimeoutLocked()
{
    endTransferOnTimeoutLocked(segState);
}

bool SDOSegmentedClient::transferRunningLocked() const
{
    return segState != 0;
}

void SDOSegmentedClient::deliverNotice(const Notice& notice)
{
    if (notice.kind == NoticeProgress)
        Q_EMIT progress(quint8(notice.code));
}
