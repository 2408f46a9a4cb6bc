#ifndef SDOSERVER_H
#define SDOSERVER_H

#include "cantypes.h"

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

class ObjectDictionary;
class SimDevice;

// The simulated device's SDO server: requests on 0x600 + node-ID, answers on
// 0x580 + node-ID. Expedited, segmented and block transfers in both
// directions, over the device's object dictionary.
//
// Frames are handled in the adapter's receive thread (a SimDevice frame
// handler) and answered there at once. The transfer state is guarded by one
// lock, shared with the stalled-transfer watchdog, which runs in the thread
// that owns the server.
class SdoServer : public QObject
{
    Q_OBJECT
public:
    // States of the one transfer the server runs at a time.
    enum State {
        Idle,
        SegmentedDownload, // initiate answered, receiving download segments
        SegmentedUpload,   // initiate answered, answering segment requests
        BlockDownload,     // receiving the segments of a sub-block
        BlockDownloadEnd,  // last segment confirmed, waiting for the end request
        BlockUploadStart,  // initiate answered, waiting for the client's start
        BlockUpload,       // sub-block sent, waiting for its confirmation
        BlockUploadEnd     // end frame sent, waiting for the client's end confirmation
    };
    Q_ENUM(State)

    static constexpr int DefaultTimeoutMs = 3000;
    static constexpr quint8 MaxBlockSize = 127;

    SdoServer(SimDevice* device, ObjectDictionary* dictionary, QObject* parent = nullptr);
    ~SdoServer() override;

    // Segments per sub-block offered in block downloads (1..127, default 127).
    bool setBlockSize(quint8 segments);
    quint8 blockSize() const { return mOfferedBlockSize.load(); }
    // Whether block transfers announce CRC support (default on). A CRC is
    // checked or sent only when the client announces support as well.
    void setCrcSupported(bool on) { mCrcSupported.store(on); }
    bool crcSupported() const { return mCrcSupported.load(); }
    // A transfer without a client frame for this long is aborted with
    // 0x05040000; 0 disables. Call from the owner's thread.
    void setTimeout(int ms);
    int timeout() const { return mTimeoutMs; }

    // Follows a new node-ID of the device (the default COB-IDs 0x600/0x580 + node-ID).
    void setNodeId(quint8 nodeId);

    State state() const;
    // Transfers that ended successfully so far.
    quint32 completedTransfers() const { return mCompleted.load(); }

    // The frame handler: true when the frame was an SDO request to this server.
    bool handleFrame(const CAN::CanRxMessage& frame);

    // Frame building (pure). Unused bytes are zero; length is 8.
    // Command byte, index, sub-index and a 32-bit little-endian value in bytes 4-7.
    static CAN::CanMessage multiplexedFrame(quint32 cobId, quint8 command, quint16 index, quint8 subIndex, quint32 value);
    // Command byte followed by up to seven data bytes.
    static CAN::CanMessage segmentFrame(quint32 cobId, quint8 command, const quint8* data, int size);
    // Expedited upload answer for 1..4 bytes.
    static quint8 expeditedUploadCommand(int size);
    // Upload segment answer carrying `size` (0..7) bytes.
    static quint8 uploadSegmentCommand(bool toggle, int size, bool last);
    // CRC-16 of block transfers (polynomial 0x1021, start value 0).
    static quint16 crc16(const quint8* data, size_t size, quint16 crc = 0);

private Q_SLOTS:
    void checkStalled();

private:
    using Clock = std::chrono::steady_clock;

    // All of these run under mLock.
    void process(const quint8* d);
    bool startTransfer(const quint8* d);
    void initiateDownload(quint16 index, quint8 sub, const quint8* d);
    void downloadSegment(const quint8* d);
    void initiateUpload(quint16 index, quint8 sub);
    void answerUpload();
    void uploadSegment(const quint8* d);
    void initiateBlockDownload(quint16 index, quint8 sub, const quint8* d);
    void blockDownloadSegment(const quint8* d);
    void blockDownloadEnd(const quint8* d);
    void initiateBlockUpload(quint16 index, quint8 sub, const quint8* d);
    void sendSubBlock();
    void blockUploadConfirm(const quint8* d);
    void finish();
    void abortTransfer(quint32 code);
    void abortWith(quint16 index, quint8 sub, quint32 code);
    void reply(const CAN::CanMessage& frame);
    quint32 receiveLimit() const;

    SimDevice* const mDevice;           // used in the receive thread
    QPointer<SimDevice> mDeviceGuard;   // owner's thread: is the device still there?
    ObjectDictionary* const mDictionary;
    std::atomic<quint32> mRequestCobId;
    std::atomic<quint32> mAnswerCobId;
    int mHandlerId = -1;

    std::atomic<quint8> mOfferedBlockSize{MaxBlockSize};
    std::atomic<bool> mCrcSupported{true};
    std::atomic<quint32> mCompleted{0};
    int mTimeoutMs = DefaultTimeoutMs; // owner's thread
    QTimer mWatchdog;                  // owner's thread

    // The transfer, guarded by mLock.
    mutable std::mutex mLock;
    State mState = Idle;
    quint16 mIndex = 0;
    quint8 mSub = 0;
    std::vector<quint8> mData; // upload: the value sent; download: bytes received
    size_t mOffset = 0;        // upload: bytes the client has confirmed (block) or received (segmented)
    quint32 mSize = 0;         // download: announced size; upload: value size
    bool mSizeIndicated = false;
    quint32 mMaxSize = 0;      // download: the entry's largest value
    bool mToggle = false;
    quint8 mBlkSize = 0;       // segments in the current sub-block
    quint8 mLastSeq = 0;       // block download: last in-sequence segment of the sub-block
    quint8 mSegmentsSent = 0;  // block upload: segments in the sub-block sent
    bool mLastSegment = false; // block: the segment with the c bit was received / sent
    bool mClientCrc = false;
    Clock::time_point mLastFrame;
};

#endif
