#include "sdoserver.h"

#include "objectdictionary.h"
#include "sdoabortcodes.h"
#include "simdevice.h"

#include <algorithm>
#include <cstring>

namespace {

quint32 le32(const quint8* p)
{
    return quint32(p[0]) | (quint32(p[1]) << 8) | (quint32(p[2]) << 16) | (quint32(p[3]) << 24);
}

// Command bytes of the requests (client command specifier in bits 7-5).
constexpr quint8 CcsDownloadSegment = 0;
constexpr quint8 CcsInitiateDownload = 1;
constexpr quint8 CcsInitiateUpload = 2;
constexpr quint8 CcsUploadSegment = 3;
constexpr quint8 CcsAbort = 4;
constexpr quint8 CcsBlockUpload = 5;
constexpr quint8 CcsBlockDownload = 6;

// Answers (server command specifier in bits 7-5).
constexpr quint8 DownloadInitiated = 0x60;
constexpr quint8 DownloadSegmentDone = 0x20; // OR toggle
constexpr quint8 SegmentedUploadOffer = 0x41; // size indicated
constexpr quint8 AbortTransfer = 0x80;
constexpr quint8 BlockDownloadInitiated = 0xA0; // OR 0x04 with CRC support
constexpr quint8 BlockDownloadConfirm = 0xA2;
constexpr quint8 BlockDownloadEnded = 0xA1;
constexpr quint8 BlockUploadInitiated = 0xC2; // size indicated; OR 0x04 with CRC support
constexpr quint8 BlockUploadEndFrame = 0xC1;  // OR n << 2
constexpr quint8 LastSegmentFlag = 0x80;

// A block segment carries seven bytes; the bytes a download may bring for a
// value of at most `limit` bytes, padding included (at least one segment).
size_t paddedLimit(quint32 limit)
{
    return std::max<size_t>(7, (size_t(limit) + 6) / 7 * 7);
}

} // namespace

SdoServer::SdoServer(SimDevice* device, ObjectDictionary* dictionary, QObject* parent)
    : QObject(parent)
    , mDevice(device)
    , mDeviceGuard(device)
    , mDictionary(dictionary)
    , mRequestCobId(0x600u + device->nodeId())
    , mAnswerCobId(0x580u + device->nodeId())
{
    mData.reserve(64);
    connect(&mWatchdog, &QTimer::timeout, this, &SdoServer::checkStalled);
    setTimeout(DefaultTimeoutMs);
    mHandlerId = device->addHandler([this](const CAN::CanRxMessage& frame) { return handleFrame(frame); });
}

void SdoServer::setNodeId(quint8 nodeId)
{
    std::lock_guard<std::mutex> guard(mLock);
    mRequestCobId.store(0x600u + nodeId);
    mAnswerCobId.store(0x580u + nodeId);
}

SdoServer::~SdoServer()
{
    // Waits for a frame being handled right now; none arrives afterwards.
    if (mDeviceGuard)
        mDeviceGuard->removeHandler(mHandlerId);
}

bool SdoServer::setBlockSize(quint8 segments)
{
    if (segments < 1 || segments > MaxBlockSize)
        return false;
    mOfferedBlockSize.store(segments);
    return true;
}

void SdoServer::setTimeout(int ms)
{
    mTimeoutMs = qMax(0, ms);
    if (mTimeoutMs == 0) {
        mWatchdog.stop();
        return;
    }
    // Polled a few times per time-out: the receive thread cannot restart a
    // timer owned by this thread, and a look at the clock is all a frame costs.
    mWatchdog.start(qBound(5, mTimeoutMs / 4, 250));
}

SdoServer::State SdoServer::state() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mState;
}

// ---- frames ----------------------------------------------------------------

CAN::CanMessage SdoServer::multiplexedFrame(quint32 cobId, quint8 command, quint16 index, quint8 subIndex, quint32 value)
{
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = command;
    m.data[1] = quint8(index);
    m.data[2] = quint8(index >> 8);
    m.data[3] = subIndex;
    m.data[4] = quint8(value);
    m.data[5] = quint8(value >> 8);
    m.data[6] = quint8(value >> 16);
    m.data[7] = quint8(value >> 24);
    return m;
}

CAN::CanMessage SdoServer::segmentFrame(quint32 cobId, quint8 command, const quint8* data, int size)
{
    CAN::CanMessage m;
    m.id = cobId;
    m.length = 8;
    m.data[0] = command;
    if (data && size > 0)
        std::memcpy(m.data + 1, data, size_t(qMin(size, 7)));
    return m;
}

quint8 SdoServer::expeditedUploadCommand(int size)
{
    // scs 2, n = bytes without data, expedited, size indicated
    return quint8(0x43 | ((4 - size) << 2));
}

quint8 SdoServer::uploadSegmentCommand(bool toggle, int size, bool last)
{
    // scs 0, toggle, n = bytes without data, c = no more segments
    return quint8((toggle ? 0x10 : 0) | ((7 - size) << 1) | (last ? 1 : 0));
}

quint16 SdoServer::crc16(const quint8* data, size_t size, quint16 crc)
{
    static const auto table = [] {
        struct Table {
            quint16 v[256];
        } t{};
        for (int i = 0; i < 256; ++i) {
            quint16 c = quint16(i << 8);
            for (int bit = 0; bit < 8; ++bit)
                c = quint16((c & 0x8000) ? (c << 1) ^ 0x1021 : c << 1);
            t.v[i] = c;
        }
        return t;
    }();
    for (size_t i = 0; i < size; ++i)
        crc = quint16((crc << 8) ^ table.v[((crc >> 8) ^ data[i]) & 0xFF]);
    return crc;
}

// ---- receive path ------------------------------------------------------------

bool SdoServer::handleFrame(const CAN::CanRxMessage& frame)
{
    const CAN::CanMessage& m = frame.message;
    if (m.id != mRequestCobId || m.extended || m.rtr)
        return false;
    quint8 d[8] = {};
    const int length = qMin<int>(m.length, 8);
    std::memcpy(d, m.data, size_t(length));

    std::lock_guard<std::mutex> guard(mLock);
    if (length < 8) {
        // SDO requests are always eight bytes long. A short abort still ends
        // the transfer; anything else is refused with a general error.
        const bool abort = length >= 1 && (mState == BlockDownload ? d[0] == AbortTransfer : (d[0] >> 5) == CcsAbort);
        if (abort)
            mState = Idle;
        else if (mState == Idle)
            abortWith(quint16(d[1] | (d[2] << 8)), d[3], SdoAbort::GeneralError);
        else
            abortTransfer(SdoAbort::GeneralError);
        return true;
    }
    process(d);
    return true;
}

void SdoServer::process(const quint8* d)
{
    mLastFrame = Clock::now();
    if (mState == BlockDownload) {
        // Inside a sub-block every frame is a segment.
        blockDownloadSegment(d);
        return;
    }
    const quint8 ccs = d[0] >> 5;
    if (ccs == CcsAbort) {
        // The client ended the transfer; an abort is never answered.
        mState = Idle;
        return;
    }
    if (startTransfer(d))
        return;

    switch (mState) {
    case Idle:
        // Nothing to continue: answer with the frame's own multiplexer bytes.
        abortWith(quint16(d[1] | (d[2] << 8)), d[3], SdoAbort::InvalidCommand);
        return;
    case SegmentedDownload:
        if (ccs == CcsDownloadSegment) {
            downloadSegment(d);
            return;
        }
        break;
    case SegmentedUpload:
        if (ccs == CcsUploadSegment) {
            uploadSegment(d);
            return;
        }
        break;
    case BlockDownloadEnd:
        if ((d[0] & 0xE3) == 0xC1) { // ccs 6, cs 1: end block download
            blockDownloadEnd(d);
            return;
        }
        break;
    case BlockUploadStart:
        if ((d[0] & 0xE3) == 0xA3) { // ccs 5, cs 3: start upload
            mState = BlockUpload;
            sendSubBlock();
            return;
        }
        break;
    case BlockUpload:
        if ((d[0] & 0xE3) == 0xA2) { // ccs 5, cs 2: block confirmation
            blockUploadConfirm(d);
            return;
        }
        break;
    case BlockUploadEnd:
        if ((d[0] & 0xE3) == 0xA1) { // ccs 5, cs 1: end confirmation
            finish();
            return;
        }
        break;
    case BlockDownload:
        break;
    }
    abortTransfer(SdoAbort::InvalidCommand);
}

bool SdoServer::startTransfer(const quint8* d)
{
    const quint8 ccs = d[0] >> 5;
    const bool initiate = ccs == CcsInitiateDownload || ccs == CcsInitiateUpload
        || (ccs == CcsBlockDownload && (d[0] & 0x01) == 0) || (ccs == CcsBlockUpload && (d[0] & 0x03) == 0);
    if (!initiate)
        return false;
    // A new request replaces a transfer the client has given up on.
    const quint16 index = quint16(d[1] | (d[2] << 8));
    const quint8 sub = d[3];
    mState = Idle;
    mIndex = index;
    mSub = sub;
    switch (ccs) {
    case CcsInitiateDownload:
        initiateDownload(index, sub, d);
        break;
    case CcsInitiateUpload:
        initiateUpload(index, sub);
        break;
    case CcsBlockDownload:
        initiateBlockDownload(index, sub, d);
        break;
    default:
        initiateBlockUpload(index, sub, d);
        break;
    }
    return true;
}

// ---- segmented and expedited download ---------------------------------------

void SdoServer::initiateDownload(quint16 index, quint8 sub, const quint8* d)
{
    const bool expedited = d[0] & 0x02;
    const bool sizeIndicated = d[0] & 0x01;
    if (expedited) {
        quint32 size = 4 - ((d[0] >> 2) & 0x03);
        if (!sizeIndicated) {
            // Size not indicated: the entry's own size, at most the four bytes.
            ObjectDictionary::Info info;
            const quint32 code = mDictionary->lookup(index, sub, info);
            if (code != SdoAbort::None) {
                abortTransfer(code);
                return;
            }
            size = info.fixedSize ? info.fixedSize : 4;
            if (size > 4) {
                abortTransfer(SdoAbort::LengthTooLow);
                return;
            }
        }
        const quint32 code = mDictionary->write(index, sub, d + 4, size);
        if (code != SdoAbort::None) {
            abortTransfer(code);
            return;
        }
        reply(multiplexedFrame(mAnswerCobId, DownloadInitiated, index, sub, 0));
        finish();
        return;
    }

    const quint32 size = le32(d + 4);
    quint32 code = mDictionary->checkWrite(index, sub, sizeIndicated ? qint64(size) : -1);
    ObjectDictionary::Info info;
    if (code == SdoAbort::None)
        code = mDictionary->lookup(index, sub, info);
    if (code != SdoAbort::None) {
        abortTransfer(code);
        return;
    }
    mSizeIndicated = sizeIndicated;
    mSize = sizeIndicated ? size : 0;
    mMaxSize = info.maxSize;
    mData.clear();
    mData.reserve(receiveLimit());
    mToggle = false;
    mState = SegmentedDownload;
    reply(multiplexedFrame(mAnswerCobId, DownloadInitiated, index, sub, 0));
}

void SdoServer::downloadSegment(const quint8* d)
{
    const bool toggle = d[0] & 0x10;
    if (toggle != mToggle) {
        abortTransfer(SdoAbort::ToggleNotAlternated);
        return;
    }
    const size_t count = 7 - ((d[0] >> 1) & 0x07);
    const bool last = d[0] & 0x01;
    if (mData.size() + count > receiveLimit()) {
        abortTransfer(mSizeIndicated ? SdoAbort::LengthMismatch : SdoAbort::LengthTooHigh);
        return;
    }
    mData.insert(mData.end(), d + 1, d + 1 + count);
    if (last) {
        if (mSizeIndicated && mData.size() != mSize) {
            abortTransfer(SdoAbort::LengthMismatch);
            return;
        }
        const quint32 code = mDictionary->write(mIndex, mSub, mData.data(), quint32(mData.size()));
        if (code != SdoAbort::None) {
            abortTransfer(code);
            return;
        }
        reply(segmentFrame(mAnswerCobId, quint8(DownloadSegmentDone | (toggle ? 0x10 : 0)), nullptr, 0));
        finish();
        return;
    }
    reply(segmentFrame(mAnswerCobId, quint8(DownloadSegmentDone | (toggle ? 0x10 : 0)), nullptr, 0));
    mToggle = !mToggle;
}

quint32 SdoServer::receiveLimit() const
{
    return mSizeIndicated ? mSize : mMaxSize;
}

// ---- segmented and expedited upload -----------------------------------------

void SdoServer::initiateUpload(quint16 index, quint8 sub)
{
    const quint32 code = mDictionary->read(index, sub, mData);
    if (code != SdoAbort::None) {
        abortTransfer(code);
        return;
    }
    answerUpload();
}

void SdoServer::answerUpload()
{
    const size_t size = mData.size();
    if (size >= 1 && size <= 4) {
        quint32 value = 0;
        for (size_t i = 0; i < size; ++i)
            value |= quint32(mData[i]) << (8 * i);
        reply(multiplexedFrame(mAnswerCobId, expeditedUploadCommand(int(size)), mIndex, mSub, value));
        finish();
        return;
    }
    // Longer (or empty) values go segmented, size indicated.
    mSize = quint32(size);
    mOffset = 0;
    mToggle = false;
    mState = SegmentedUpload;
    reply(multiplexedFrame(mAnswerCobId, SegmentedUploadOffer, mIndex, mSub, mSize));
}

void SdoServer::uploadSegment(const quint8* d)
{
    const bool toggle = d[0] & 0x10;
    if (toggle != mToggle) {
        abortTransfer(SdoAbort::ToggleNotAlternated);
        return;
    }
    const size_t count = std::min<size_t>(7, mSize - mOffset);
    const bool last = mOffset + count >= mSize;
    reply(segmentFrame(mAnswerCobId, uploadSegmentCommand(toggle, int(count), last),
                       count ? &mData[mOffset] : nullptr, int(count)));
    mOffset += count;
    mToggle = !mToggle;
    if (last)
        finish();
}

// ---- block download ------------------------------------------------------------

void SdoServer::initiateBlockDownload(quint16 index, quint8 sub, const quint8* d)
{
    const bool clientCrc = d[0] & 0x04;
    const bool sizeIndicated = d[0] & 0x02;
    const quint32 size = le32(d + 4);
    quint32 code = mDictionary->checkWrite(index, sub, sizeIndicated ? qint64(size) : -1);
    ObjectDictionary::Info info;
    if (code == SdoAbort::None)
        code = mDictionary->lookup(index, sub, info);
    if (code != SdoAbort::None) {
        abortTransfer(code);
        return;
    }
    const bool crc = mCrcSupported.load();
    mClientCrc = clientCrc && crc; // checked only when both sides support it
    mSizeIndicated = sizeIndicated;
    mSize = sizeIndicated ? size : 0;
    mMaxSize = info.maxSize;
    mData.clear();
    mData.reserve(paddedLimit(receiveLimit()));
    mBlkSize = mOfferedBlockSize.load();
    mLastSeq = 0;
    mLastSegment = false;
    mState = BlockDownload;
    reply(multiplexedFrame(mAnswerCobId, quint8(BlockDownloadInitiated | (crc ? 0x04 : 0)), index, sub, mBlkSize));
}

void SdoServer::blockDownloadSegment(const quint8* d)
{
    if (d[0] == AbortTransfer) {
        // Sequence number 0 is no segment: this is the client's abort.
        mState = Idle;
        return;
    }
    const quint8 seq = d[0] & 0x7F;
    const bool last = d[0] & LastSegmentFlag;
    if (seq == 0 || seq > mBlkSize) {
        abortTransfer(SdoAbort::InvalidSequenceNumber);
        return;
    }
    if (seq == mLastSeq + 1) {
        if (mData.size() + 7 > paddedLimit(receiveLimit())) {
            abortTransfer(mSizeIndicated ? SdoAbort::LengthMismatch : SdoAbort::LengthTooHigh);
            return;
        }
        mData.insert(mData.end(), d + 1, d + 8);
        mLastSeq = seq;
        mLastSegment = last;
    }
    // A segment out of sequence is dropped; the confirmation tells the client
    // the last one taken, and it repeats the rest in the next sub-block.
    if (!last && seq != mBlkSize)
        return;
    const quint8 next = mOfferedBlockSize.load();
    const quint8 ack[2] = {mLastSeq, next};
    reply(segmentFrame(mAnswerCobId, BlockDownloadConfirm, ack, 2));
    if (mLastSegment) {
        mState = BlockDownloadEnd;
        return;
    }
    mLastSeq = 0;
    mBlkSize = next;
}

void SdoServer::blockDownloadEnd(const quint8* d)
{
    // n: bytes of the last segment without data.
    const size_t unused = (d[0] >> 2) & 0x07;
    const size_t size = mData.size() - unused; // at least one segment was taken
    if (mSizeIndicated && size != mSize) {
        abortTransfer(SdoAbort::LengthMismatch);
        return;
    }
    if (mClientCrc && quint16(d[1] | (d[2] << 8)) != crc16(mData.data(), size)) {
        abortTransfer(SdoAbort::CrcError);
        return;
    }
    const quint32 code = mDictionary->write(mIndex, mSub, mData.data(), quint32(size));
    if (code != SdoAbort::None) {
        abortTransfer(code);
        return;
    }
    reply(segmentFrame(mAnswerCobId, BlockDownloadEnded, nullptr, 0));
    finish();
}

// ---- block upload ---------------------------------------------------------------

void SdoServer::initiateBlockUpload(quint16 index, quint8 sub, const quint8* d)
{
    const bool clientCrc = d[0] & 0x04;
    const quint8 blockSize = d[4];
    const quint8 switchThreshold = d[5];
    const quint32 code = mDictionary->read(index, sub, mData);
    if (code != SdoAbort::None) {
        abortTransfer(code);
        return;
    }
    if (blockSize < 1 || blockSize > MaxBlockSize) {
        abortTransfer(SdoAbort::InvalidBlockSize);
        return;
    }
    // Protocol switch: a value no longer than the client's threshold goes
    // the expedited or segmented way.
    if (switchThreshold != 0 && mData.size() <= switchThreshold) {
        answerUpload();
        return;
    }
    const bool crc = mCrcSupported.load();
    mClientCrc = clientCrc && crc;
    mSize = quint32(mData.size());
    mOffset = 0;
    mBlkSize = blockSize;
    mState = BlockUploadStart;
    reply(multiplexedFrame(mAnswerCobId, quint8(BlockUploadInitiated | (crc ? 0x04 : 0)), index, sub, mSize));
}

void SdoServer::sendSubBlock()
{
    mSegmentsSent = 0;
    mLastSegment = false;
    for (quint8 seq = 1; seq <= mBlkSize; ++seq) {
        const size_t pos = mOffset + size_t(seq - 1) * 7;
        const size_t count = pos < mSize ? std::min<size_t>(7, mSize - pos) : 0;
        const bool last = pos + count >= mSize;
        reply(segmentFrame(mAnswerCobId, quint8(seq | (last ? LastSegmentFlag : 0)), count ? &mData[pos] : nullptr,
                           int(count)));
        mSegmentsSent = seq;
        if (last) {
            mLastSegment = true;
            return;
        }
    }
}

void SdoServer::blockUploadConfirm(const quint8* d)
{
    const quint8 ackSeq = d[1];
    const quint8 blockSize = d[2];
    if (ackSeq > mSegmentsSent) {
        abortTransfer(SdoAbort::InvalidSequenceNumber);
        return;
    }
    mOffset += size_t(ackSeq) * 7;
    if (mLastSegment && ackSeq == mSegmentsSent) {
        // All acknowledged: end frame with n (bytes of the last segment
        // without data) and the CRC when both sides use one.
        const quint8 unused = mSize == 0 ? 7 : quint8((7 - mSize % 7) % 7);
        const quint16 crc = mClientCrc ? crc16(mData.data(), mSize) : 0;
        const quint8 bytes[2] = {quint8(crc), quint8(crc >> 8)};
        reply(segmentFrame(mAnswerCobId, quint8(BlockUploadEndFrame | (unused << 2)), bytes, 2));
        mState = BlockUploadEnd;
        return;
    }
    if (blockSize < 1 || blockSize > MaxBlockSize) {
        abortTransfer(SdoAbort::InvalidBlockSize);
        return;
    }
    // Unconfirmed segments are sent again at the start of the next sub-block.
    mBlkSize = blockSize;
    sendSubBlock();
}

// ---- common ---------------------------------------------------------------------

void SdoServer::finish()
{
    mState = Idle;
    mCompleted.fetch_add(1, std::memory_order_relaxed);
}

void SdoServer::abortTransfer(quint32 code)
{
    abortWith(mIndex, mSub, code);
}

void SdoServer::abortWith(quint16 index, quint8 sub, quint32 code)
{
    mState = Idle;
    reply(multiplexedFrame(mAnswerCobId, AbortTransfer, index, sub, code));
}

void SdoServer::reply(const CAN::CanMessage& frame)
{
    mDevice->send(frame);
}

void SdoServer::checkStalled()
{
    std::lock_guard<std::mutex> guard(mLock);
    if (mState == Idle || mTimeoutMs <= 0)
        return;
    if (Clock::now() - mLastFrame >= std::chrono::milliseconds(mTimeoutMs))
        abortTransfer(SdoAbort::Timeout);
}
