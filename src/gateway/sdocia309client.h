#ifndef SDOCIA309CLIENT_H
#define SDOCIA309CLIENT_H

#include "canopenservice.h"
#include <QMap>
#include <QString>
#include <QVariant>

// SDO through a CiA 309-3 ASCII gateway: sends the gateway's read and write
// commands instead of SDO frames and turns its answer lines into the same
// signals as the frame-based engines. One transfer at a time; no timer of
// its own (the gateway's SDO time-out answers for a silent node).
class CANOPENMASTER_EXPORT SDOCiA309Client : public CANopenService
{
    Q_OBJECT
public:
    enum State : int {
        DomainReadStarted = 0,
        DomainReadBlocks = 1,   // "BLOCK" lines seen, data lines follow
        DomainReadLastBlock = 2, // the last block was announced: its data ends the upload
        DomainWriteStarted = 3,
        DomainWriteDone = 4,    // all blocks acknowledged, the final OK is due
        Waiting = 5,
        Idle = 6
    };

    explicit SDOCiA309Client(QObject* parent = nullptr);
    explicit SDOCiA309Client(CanScheduler* scheduler, QObject* parent = nullptr);

    CAN::RetType read(quint8 node, quint16 index, quint8 subIndex, CAN::CANopenDataType type);
    CAN::RetType write(quint8 node, quint16 index, quint8 subIndex, CAN::CANopenDataType type, QVariant value);
    CAN::RetType setSdoTimeout(quint32 ms);
    quint32 getSdoTimeout() const { return sdoTimeout; }
    CAN::RetType setCanScheduler(CanScheduler* scheduler);
    CAN::RetType abort(quint32 abortCode);
    QByteArray getCurrentlyReceivedData() const;
    bool isBusy() const { return state != Idle; }

    // Pure helpers, also used by the gateway server tool.
    static QString typeName(CAN::CANopenDataType type); // empty: not accepted
    static CAN::CANopenDataType typeFromName(const QString& name, bool* ok);
    static QString formatValue(CAN::CANopenDataType type, const QVariant& value);
    static QVariant parseValue(CAN::CANopenDataType type, const QStringList& pieces);
    // The error code of an error line, 0 when it carries none.
    static quint32 errorCode(const QStringList& pieces);
    // The line split at blanks; a value in double quotes stays one piece,
    // without its quotes ("" inside stands for one quote).
    static QStringList splitLine(const QString& line);

Q_SIGNALS:
    void resultReceived(quint16 index, quint8 subIndex, QVariant value);
    void errorReceived(quint16 index, quint8 subIndex, quint32 errorCode);
    void progress(quint8 percentValue);

public Q_SLOTS:
    void newResponseString(QString response);

private:
    void handleResponseLine(QString line);
    CAN::RetType send(const QString& request);
    void finish();

    QMap<int, QString> typeNames;
    qint16 expectedSequence = -1;
    quint16 index = 0;
    quint8 subIndex = 0;
    CAN::CANopenDataType dataType = CAN::UNSIGNED32;
    int state = Idle;
    QString domainText;
    quint32 sdoTimeout = 2000;
    QPointer<AbstractCanAdapter> connectedAdapter;
};

#endif
