#ifndef SCRIPTEDSDOSERVER_H
#define SCRIPTEDSDOSERVER_H

#include "cantypes.h"

#include <QByteArray>
#include <QList>

// The SDO server side of one device entry, as a script for ScriptedResponder
// or for a responder on the virtual bus: answers expedited, segmented and
// block requests, one transfer at a time, from one thread at a time.
// Uploads return `content` (expedited when it has at most four bytes);
// downloads are collected in `received`.
class ScriptedSdoServer
{
public:
    QByteArray content;
    bool indicateSize = true;      // segmented upload: size in the initiate answer
    quint8 downloadBlockSize = 127;
    int confirmOnly = 0;           // block download: confirm only this many segments
    int silentAfter = -1;          // block upload: send no more segments after this many
    int answerRequests = -1;       // answer only this many frames, then fall silent
    QByteArray received;

    // The answer frames (8 bytes each) to one request; none to an abort.
    QList<QByteArray> answer(const CAN::CanMessage& request);

private:
    QList<QByteArray> uploadBlock();

    enum Mode { Idle, SegmentedDownload, SegmentedUpload, BlockDownload, BlockDownloadEnd,
                BlockUploadStart, BlockUpload, BlockUploadEnd };
    Mode mMode = Idle;
    int mPosition = 0;
    int mSentSegments = 0;
    quint8 mClientBlockSize = 0;
};

#endif
