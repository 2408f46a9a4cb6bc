#include "scriptedsdoserver.h"

#include <cstring>

namespace {
QByteArray frame8(std::initializer_list<int> head)
{
    QByteArray a(8, '\0');
    int i = 0;
    for (int b : head)
        a[i++] = char(b);
    return a;
}

// An answer that repeats the request's index and sub-index.
QByteArray entryAnswer(quint8 command, const CAN::CanMessage& request, quint32 payload = 0)
{
    QByteArray a(8, '\0');
    a[0] = char(command);
    std::memcpy(a.data() + 1, request.data + 1, 3);
    for (int i = 0; i < 4; ++i)
        a[4 + i] = char(payload >> (8 * i));
    return a;
}
} // namespace

QList<QByteArray> ScriptedSdoServer::answer(const CAN::CanMessage& m)
{
    const quint8 c = m.data[0];
    if (answerRequests == 0)
        return {};
    if (answerRequests > 0)
        --answerRequests;
    if (c == 0x80) {
        mMode = Idle;
        return {};
    }
    switch (mMode) {
    case SegmentedDownload:
        if ((c & 0xE0) == 0x00) {
            received.append(reinterpret_cast<const char*>(m.data + 1), 7 - ((c >> 1) & 0x07));
            if (c & 0x01)
                mMode = Idle;
            return {frame8({0x20 | (c & 0x10)})};
        }
        break;
    case SegmentedUpload:
        if ((c & 0xEF) == 0x60) {
            const int n = qMin(7, content.size() - mPosition);
            const bool last = mPosition + n >= content.size();
            QByteArray a(8, '\0');
            a[0] = char((c & 0x10) | ((7 - n) << 1) | (last ? 1 : 0));
            std::memcpy(a.data() + 1, content.constData() + mPosition, size_t(n));
            mPosition += n;
            if (last)
                mMode = Idle;
            return {a};
        }
        break;
    case BlockDownload: {
        received.append(reinterpret_cast<const char*>(m.data + 1), 7);
        const int seq = c & 0x7F;
        const bool last = c & 0x80;
        if (last)
            mMode = BlockDownloadEnd;
        if (seq == downloadBlockSize || last)
            return {frame8({0xA2, confirmOnly ? confirmOnly : seq, downloadBlockSize})};
        return {};
    }
    case BlockDownloadEnd:
        if ((c & 0xE3) == 0xC1) {
            received.chop((c >> 2) & 0x07);
            mMode = Idle;
            return {frame8({0xA1})};
        }
        return {};
    case BlockUploadStart:
        return c == 0xA3 ? uploadBlock() : QList<QByteArray>();
    case BlockUpload:
        if (c != 0xA2)
            return {};
        if (mPosition >= content.size()) {
            mMode = BlockUploadEnd;
            const int unused = (7 - content.size() % 7) % 7;
            return {frame8({0xC1 | (unused << 2), 0x12, 0x34})}; // a CRC the client ignores
        }
        return uploadBlock();
    case BlockUploadEnd:
        mMode = Idle;
        return {};
    case Idle:
        break;
    }

    // Initiate requests.
    if (c == 0x40) {
        mPosition = 0;
        if (content.size() <= 4) {
            quint32 v = 0;
            std::memcpy(&v, content.constData(), size_t(content.size()));
            return {entryAnswer(quint8(0x43 | ((4 - content.size()) << 2)), m, v)};
        }
        mMode = SegmentedUpload;
        return {entryAnswer(indicateSize ? 0x41 : 0x40, m, indicateSize ? quint32(content.size()) : 0)};
    }
    if ((c & 0xE2) == 0x22) { // expedited download
        const int n = (c & 0x01) ? 4 - ((c >> 2) & 0x03) : 4;
        received = QByteArray(reinterpret_cast<const char*>(m.data + 4), n);
        return {entryAnswer(0x60, m)};
    }
    if (c == 0x21) {
        received.clear();
        mMode = SegmentedDownload;
        return {entryAnswer(0x60, m)};
    }
    if (c == 0xC2) {
        received.clear();
        mMode = BlockDownload;
        return {entryAnswer(0xA0, m, downloadBlockSize)};
    }
    if (c == 0xA4) {
        mClientBlockSize = m.data[4];
        mPosition = 0;
        mSentSegments = 0;
        mMode = BlockUploadStart;
        return {entryAnswer(0xC2, m, quint32(content.size()))};
    }
    return {};
}

QList<QByteArray> ScriptedSdoServer::uploadBlock()
{
    mMode = BlockUpload;
    QList<QByteArray> frames;
    for (int seq = 1; seq <= mClientBlockSize && mPosition < content.size(); ++seq) {
        if (silentAfter >= 0 && mSentSegments >= silentAfter)
            break;
        QByteArray a(8, '\0');
        const int n = qMin(7, content.size() - mPosition);
        std::memcpy(a.data() + 1, content.constData() + mPosition, size_t(n));
        mPosition += n;
        a[0] = char(seq | (mPosition >= content.size() ? 0x80 : 0));
        frames.append(a);
        ++mSentSegments;
    }
    return frames;
}
