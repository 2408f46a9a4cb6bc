#ifndef SDOREQUEST_H
#define SDOREQUEST_H

#include "cantypes.h"

#include <QEventLoop>
#include <QString>
#include <QVariant>
#include <functional>

class SDOClient;

// Runs one SDOClient request to its end inside the demo's event loop and
// keeps what came back: the value, or the abort code, or the refusal.
class SdoRequest
{
public:
    explicit SdoRequest(SDOClient& client);

    bool read(quint16 index, quint8 sub, CAN::CANopenDataType type);
    bool write(quint16 index, quint8 sub, CAN::CANopenDataType type, const QVariant& value);

    QVariant value;            // the value read, or the value written
    quint32 abortCode = 0;     // set when the transfer ended with an error
    CAN::RetType refused = CAN::Ok; // set when the request did not start
    double ms = 0;             // how long the request took

    // "abort 0x06020000: Object does not exist", "refused with 1", ...
    QString failure() const;
    // The transfer kind the client picked, in words.
    QString kindName() const;

private:
    bool run(const std::function<CAN::RetType()>& start);

    SDOClient& mClient;
    QEventLoop mLoop;
    bool mDone = false;
    bool mOk = false;
};

#endif
