#ifndef GATEWAYBACKEND_H
#define GATEWAYBACKEND_H

#include "gatewayrequest.h"
#include "lssmaster.h"

#include <QObject>
#include <QQueue>
#include <functional>
#include <map>
#include <memory>

class CanScheduler;
class SDOClient;
class NMTNetwork;
class NMTSlave;

// Carries out gateway requests on the bus with the library's services: SDO
// reads and writes through one SDOClient per node (one transfer per node at a
// time, the others queued in arrival order, so that several clients can work
// at once), NMT commands through NMTNetwork and NMTSlave, the LSS commands
// through LSSMaster (one at a time). Each request ends with one call of its
// reply, with the answer lines (without their line end).
class GatewayBackend : public QObject
{
    Q_OBJECT
public:
    using Reply = std::function<void(const QStringList& lines)>;

    explicit GatewayBackend(CanScheduler* scheduler, QObject* parent = nullptr);
    ~GatewayBackend() override;

    void execute(const GatewayRequest& request, const Reply& reply);

    // Requests queued or running (for tests and statistics).
    int pending() const;

private:
    struct Job {
        GatewayRequest request;
        Reply reply;
    };
    struct Node {
        std::unique_ptr<SDOClient> client;
        QQueue<Job> queue; // the head is running
    };
    Node& node(int id);
    void startSdo(int id);
    void finishSdo(int id, const QStringList& lines);
    void startLss();
    void finishLss(const QStringList& lines);
    QString formatRead(const GatewayRequest& r, const QVariant& value) const;
    bool writeValue(const GatewayRequest& r, QVariant& value, QString* error) const;
    void onLssResult(LSSMaster::LssAction action, LSSMaster::LssResult result, QVariant value);

    CanScheduler* mScheduler;
    quint16 mSdoTimeout = 1000;
    std::map<int, Node> mNodes; // stable references, move-only values
    std::unique_ptr<NMTNetwork> mNetwork;
    std::unique_ptr<NMTSlave> mSlave;
    std::unique_ptr<LSSMaster> mLss;
    QQueue<Job> mLssQueue; // the head is running
    QStringList mLssLines;  // identities found by a running classical scan
};

#endif
