#ifndef RPDO_H
#define RPDO_H

#include "pdo.h"

#include <QPointer>

class CanSender;

// Receives one PDO: cuts every frame on its COB-ID into values by the mapping
// and emits them with newPDOData(); a frame whose length differs from the
// mapped length is still decoded and emitted, then reported with
// newPDOError(LengthMismatch). Frames are handled in the RPDO's own thread.
class CANOPENMASTER_EXPORT RPDO : public PDO
{
    Q_OBJECT
public:
    explicit RPDO(QObject* parent = nullptr);
    RPDO(unsigned int cobId, CanScheduler* scheduler, QObject* parent = nullptr);
    RPDO(unsigned int cobId, QVector<CAN::CANopenDataType> mapping, CanScheduler* scheduler,
         QObject* parent = nullptr);
    ~RPDO() override;

    // Stores the COB-ID and, with a scheduler, registers it in place of the
    // old one.
    CAN::RetType setCobId(unsigned int cobId) override;
    // Stores the scheduler only: setCobId() registers with it.
    CAN::RetType setCanScheduler(CanScheduler* scheduler);

    // One value per mapping entry from the 64 data bytes; false (values
    // untouched) when an entry has a type that is not supported. Bytes past
    // the frame's length, and past the 64 data bytes, read as 0.
    static bool decodePdo(const QVector<CAN::CANopenDataType>& mapping, const CAN::CanMessage& frame,
                          QVector<QVariant>& values);

public Q_SLOTS:
    void newCanMessageReceived(CAN::CanRxMessage message) override;

Q_SIGNALS:
    void newPDOData(QVector<QVariant> data);
    void newPDOError(PDO::PdoError error);

private:
    QPointer<CanSender> mReceiver;
};

#endif
