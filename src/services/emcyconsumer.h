#ifndef EMCYCONSUMER_H
#define EMCYCONSUMER_H

#include "canopenservice.h"

#include <QPointer>
#include <QString>

class AbstractCanAdapter;

// Receives the emergency messages of one node and delivers each as an
// EMCYData record: from the EMCY frames on its COB-ID on CAN, or from the
// gateway's emergency report lines on a CiA 309-3 gateway.
class CANOPENMASTER_EXPORT EMCYConsumer : public CANopenService
{
    Q_OBJECT
public:
    // Layout of an EMCY frame: error code (2 bytes, little-endian), error
    // register, 5 bytes manufacturer-specific error field.
    struct EMCYData {
        quint8 errorRegister = 0;
        quint16 errorCode = 0;
        quint8 manufacturerData[5] = {};
    };

    explicit EMCYConsumer(QObject* parent = nullptr);
    EMCYConsumer(unsigned int cobId, QObject* parent = nullptr);
    EMCYConsumer(unsigned int cobId, CanScheduler* scheduler, QObject* parent = nullptr);
    ~EMCYConsumer() override;

    // Stores the COB-ID and, when a scheduler is set, registers it and
    // connects the frames. Without a scheduler only the COB-ID is stored.
    void setCobId(unsigned int cobId);
    unsigned int cobId() const { return mCobId; }
    // Registers the COB-ID on the new scheduler, but does not connect its
    // frames (a following setCobId does); gateway lines are connected.
    void setCanScheduler(CanScheduler* scheduler);

    // Pure decoding. A frame's 8 data bytes (length not looked at).
    static EMCYData decodeFrame(const CAN::CanMessage& frame);
    // One gateway line: true and the record when it reports an emergency of
    // the node whose EMCY COB-ID is `cobId`. A trailing CR is dropped; a line
    // of exactly 8 tokens leaves the last manufacturer byte 0.
    static bool decodeLine(const QString& line, unsigned int cobId, EMCYData& out);

Q_SIGNALS:
    void newEmcyData(EMCYConsumer::EMCYData data);

public Q_SLOTS:
    void newCanMessageReceived(CAN::CanRxMessage message) override;
    void newCiA309Response(QString response);
    void handleResponseLine(QString line);

private:
    void connectGateway();
    static void registerMetaTypes();

    unsigned int mCobId = 0;
    QPointer<CanSender> mReceiver;
    QPointer<AbstractCanAdapter> mGateway; // adapter whose response lines we read
};

Q_DECLARE_METATYPE(EMCYConsumer::EMCYData)

#endif
