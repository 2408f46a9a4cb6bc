#ifndef PDO_H
#define PDO_H

#include "canopenservice.h"
#include "cantypes.h"

#include <QVariant>
#include <QVector>
#include <atomic>

// Common base of the process data objects: the COB-ID and the mapping, one
// data type per mapped object in frame order.
class CANOPENMASTER_EXPORT PDO : public CANopenService
{
    Q_OBJECT
public:
    enum PdoError {
        LengthMismatch = 1 // the mapped length differs from the frame's length
    };
    Q_ENUM(PdoError)

    explicit PDO(QObject* parent = nullptr);

    virtual CAN::RetType setCobId(unsigned int cobId);
    unsigned int cobId() const { return mCobId; }
    CAN::RetType setMapping(QVector<CAN::CANopenDataType> mapping);
    QVector<CAN::CANopenDataType> mapping() const { return mMapping; }
    // The transmission type of the PDO's communication parameter (CiA 301:
    // 0..240 synchronous, 254/255 event-driven). Kept for the application;
    // the receive path takes every frame whatever it says.
    CAN::RetType setTransmissionType(unsigned int type);
    unsigned int transmissionType() const { return mTransmissionType; }

    // Sum of the byte counts of the mapping; 0 (with a debug line) if an
    // entry has a type that is not supported.
    int mappedLength() const;

    // Byte count of a mapped value: 1, 2 or 4 for the six integer types,
    // 0 for every type that is not supported.
    static int typeLength(CAN::CANopenDataType type);
    // Little-endian value of `type` at byte `pos` of a 64-byte data field;
    // bytes beyond the field read as 0. Signed types are sign-extended into
    // an int, UNSIGNED8/16 give an int and UNSIGNED32 an unsigned int.
    // An unsupported type gives an invalid QVariant.
    static QVariant decodeValue(CAN::CANopenDataType type, const quint8 (&data)[64], int pos);

protected:
    unsigned int mCobId = 0;
    QVector<CAN::CANopenDataType> mMapping;
    unsigned int mTransmissionType = 0;
};

Q_DECLARE_METATYPE(PDO::PdoError)

#endif
