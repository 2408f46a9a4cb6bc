#include "gatewaybackend.h"

#include "canscheduler.h"
#include "nmtnetwork.h"
#include "nmtslave.h"
#include "sdocia309client.h"
#include "sdoclient.h"
#include "sdovaluetext.h"

#include <QTimer>

namespace {
using M = LSSMaster;
using R = GatewayRequest;

QString sdoError(int sequence, quint32 code)
{
    return R::prefix(sequence)
        + QStringLiteral("ERROR:0x%1 #%2").arg(code, 8, 16, QLatin1Char('0')).arg(SDOClient::interpretSdoAbort(code));
}
} // namespace

GatewayBackend::GatewayBackend(CanScheduler* scheduler, QObject* parent)
    : QObject(parent)
    , mScheduler(scheduler)
    , mNetwork(new NMTNetwork(scheduler))
    , mSlave(new NMTSlave(scheduler))
    , mLss(new LSSMaster(scheduler))
{
    connect(mLss.get(), &LSSMaster::lssResult, this, &GatewayBackend::onLssResult);
}

GatewayBackend::~GatewayBackend() = default;

int GatewayBackend::pending() const
{
    int n = mLssQueue.size();
    for (const auto& node : mNodes)
        n += node.second.queue.size();
    return n;
}

GatewayBackend::Node& GatewayBackend::node(int id)
{
    Node& n = mNodes[id];
    if (!n.client) {
        n.client.reset(new SDOClient(0x580u + quint32(id), 0x600u + quint32(id), mScheduler));
        n.client->setSdoTimeout(mSdoTimeout);
        SDOClient* c = n.client.get();
        connect(c, &SDOClient::resultReceived, this, [this, id](quint16, quint8, QVariant value) {
            Node& n = mNodes[id];
            if (!n.queue.isEmpty())
                finishSdo(id, {formatRead(n.queue.head().request, value)});
        });
        connect(c, &SDOClient::errorReceived, this, [this, id](quint16, quint8, quint32 code) {
            Node& n = mNodes[id];
            if (!n.queue.isEmpty())
                finishSdo(id, {sdoError(n.queue.head().request.sequence, code)});
        });
    }
    return n;
}

void GatewayBackend::execute(const GatewayRequest& r, const Reply& reply)
{
    switch (r.kind) {
    case R::Invalid:
        reply({R::error(r.sequence, r.errorCode, r.errorText)});
        return;
    case R::Help:
        reply({R::prefix(r.sequence)
               + QStringLiteral("commands: [net] node r|w INDEX SUB TYPE [VALUE]; [net] node start|stop|preop|"
                                "reset node|reset comm (node 0: all); set sdo_timeout MS; lss_switch_glob 0|1, "
                                "lss_switch_sel V P R S, lss_set_node ID, lss_conf_bitrate TABLE INDEX, "
                                "lss_activate_bitrate DELAY, lss_store, lss_get_node, lss_ident_nonconf, "
                                "lss_identity V P RL RH SL SH; help")});
        return;
    case R::SetSdoTimeout:
        mSdoTimeout = quint16(r.number);
        for (auto& n : mNodes) {
            if (n.second.client && !n.second.client->isBusy())
                n.second.client->setSdoTimeout(mSdoTimeout);
        }
        reply({R::prefix(r.sequence) + QStringLiteral("OK")});
        return;
    case R::Nmt: {
        CAN::RetType sent;
        if (r.node == 0) {
            sent = mNetwork->sendCommand(r.nmt);
        } else {
            mSlave->setNodeId(quint8(r.node));
            sent = mSlave->sendCommand(r.nmt);
        }
        reply({sent == CAN::Ok ? R::prefix(r.sequence) + QStringLiteral("OK")
                               : R::error(r.sequence, R::NotProcessed, QStringLiteral("the frame was not sent"))});
        return;
    }
    case R::Read:
    case R::Write: {
        Node& n = node(r.node);
        n.queue.enqueue(Job{r, reply});
        if (n.queue.size() == 1)
            startSdo(r.node);
        return;
    }
    case R::Lss:
        mLssQueue.enqueue(Job{r, reply});
        if (mLssQueue.size() == 1)
            startLss();
        return;
    }
}

// ---------------------------------------------------------------- SDO

bool GatewayBackend::writeValue(const GatewayRequest& r, QVariant& value, QString* error) const
{
    if (r.type == CAN::DOMAIN || r.type == CAN::OCTET_STRING) {
        // Binary values travel as base64 text.
        const QByteArray text = r.valuePieces.join(QString()).toLatin1();
        const auto decoded = QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
        if (!decoded) {
            *error = QStringLiteral("Syntax error: the value is not base64");
            return false;
        }
        value = *decoded;
        return true;
    }
    if (r.type == CAN::VISIBLE_STRING) {
        value = r.valuePieces.join(QLatin1Char(' ')).toUtf8();
        return true;
    }
    if (r.valuePieces.size() != 1) {
        *error = QStringLiteral("Syntax error: one value expected");
        return false;
    }
    // SDO over CAN moves the types longer than four bytes as their bytes.
    return SdoValueText::parseValue(r.type, r.valuePieces.first(), true, value, error);
}

QString GatewayBackend::formatRead(const GatewayRequest& r, const QVariant& value) const
{
    if (r.kind == R::Write)
        return R::prefix(r.sequence) + QStringLiteral("OK");
    // The gateway's own forms: numbers, quoted strings, base64 for binary values.
    const QVariant v = SdoValueText::numberFromBytes(r.type, value);
    if (r.type == CAN::OCTET_STRING)
        return R::prefix(r.sequence) + QString::fromLatin1(v.toByteArray().toBase64());
    return R::prefix(r.sequence) + SDOCiA309Client::formatValue(r.type, v);
}

void GatewayBackend::startSdo(int id)
{
    Node& n = mNodes[id];
    while (!n.queue.isEmpty()) {
        const GatewayRequest& r = n.queue.head().request;
        CAN::RetType started = CAN::Error;
        QString error;
        if (r.kind == R::Read) {
            started = n.client->read(r.index, r.sub, r.type);
        } else {
            QVariant value;
            if (!writeValue(r, value, &error)) {
                finishSdo(id, {R::error(r.sequence, R::SyntaxError, error)});
                return; // finishSdo started the next one
            }
            started = n.client->write(r.index, r.sub, r.type, value);
        }
        if (started == CAN::Ok)
            return; // its outcome comes by signal
        const Job job = n.queue.dequeue();
        job.reply({R::error(job.request.sequence, R::RequestNotSupported,
                            QStringLiteral("Request not supported: no SDO transfer for this type (%1)").arg(int(started)))});
    }
}

void GatewayBackend::finishSdo(int id, const QStringList& lines)
{
    Node& n = mNodes[id];
    const Job job = n.queue.dequeue();
    job.reply(lines);
    // The next request starts from the event loop, not inside the client's signal.
    if (!n.queue.isEmpty())
        QTimer::singleShot(0, this, [this, id]() { startSdo(id); });
}

// ---------------------------------------------------------------- LSS

void GatewayBackend::startLss()
{
    while (!mLssQueue.isEmpty()) {
        const GatewayRequest& r = mLssQueue.head().request;
        const QList<quint32>& a = r.lssArguments;
        const QString& c = r.lssCommand;
        mLss->setTimeout(500);
        mLssLines.clear();
        CAN::RetType started = CAN::NotSupported;
        bool waits = true;
        if (c == QLatin1String("lss_switch_glob") && a.size() == 1) {
            started = mLss->switchModeGlobal(a[0] ? M::LssConfigurationState : M::LssWaitingState);
            waits = false;
        } else if (c == QLatin1String("lss_switch_sel") && a.size() == 4) {
            started = mLss->switchModeSelective(a[0], a[1], a[2], a[3]);
        } else if (c == QLatin1String("lss_set_node") && a.size() == 1 && a[0] <= 255) {
            started = mLss->configureNodeId(quint8(a[0]));
        } else if (c == QLatin1String("lss_conf_bitrate") && a.size() == 2 && a[0] <= 255 && a[1] <= 255) {
            started = mLss->configureBitTiming(quint8(a[0]), quint8(a[1]));
        } else if (c == QLatin1String("lss_activate_bitrate") && a.size() == 1 && a[0] <= 0xFFFF) {
            started = mLss->activateBitTiming(quint16(a[0])); // ends by its time-out: no answer exists
        } else if (c == QLatin1String("lss_store") && a.isEmpty()) {
            started = mLss->storeConfiguration();
        } else if ((c == QLatin1String("lss_get_node") || c == QLatin1String("lss_get_node_node")) && a.isEmpty()) {
            started = mLss->inquireNodeId();
        } else if (c == QLatin1String("lss_ident_nonconf") && a.isEmpty()) {
            started = mLss->identifyNonConfigSlaves();
            waits = false;
        } else if (c == QLatin1String("lss_identity") && a.size() == 6) {
            mLss->setTimeout(50);
            started = mLss->classicalScan(a[0], a[1], a[2], a[3], a[4], a[5]);
        } else {
            const Job job = mLssQueue.dequeue();
            job.reply({R::error(job.request.sequence, R::RequestNotSupported,
                                QStringLiteral("Request not supported: %1 with %2 arguments")
                                    .arg(job.request.lssCommand).arg(job.request.lssArguments.size()))});
            continue;
        }
        if (started == CAN::Ok && waits)
            return; // lssResult ends it
        const Job job = mLssQueue.dequeue();
        job.reply({started == CAN::Ok ? R::prefix(job.request.sequence) + QStringLiteral("OK")
                                      : R::error(job.request.sequence, R::NotProcessed, QString())});
    }
}

void GatewayBackend::finishLss(const QStringList& lines)
{
    const Job job = mLssQueue.dequeue();
    job.reply(lines);
    if (!mLssQueue.isEmpty())
        QTimer::singleShot(0, this, [this]() { startLss(); });
}

void GatewayBackend::onLssResult(M::LssAction action, M::LssResult result, QVariant value)
{
    if (mLssQueue.isEmpty() || action == M::LssIdentifyNonConfigSlaves)
        return;
    const GatewayRequest& r = mLssQueue.head().request;
    const QString pre = R::prefix(r.sequence);
    if (action == M::LssClassicalScan) {
        const QStringList id = value.toStringList();
        if (result == M::LssSuccess && id.value(0).toUInt() != 0xFFFFFFFFu) {
            mLssLines << pre + id.join(QLatin1Char(' ')); // one line per device found
            return;
        }
        QStringList lines = mLssLines;
        lines << (result == M::LssSuccess ? pre + QStringLiteral("OK") : R::error(r.sequence, R::LssFailed, QString()));
        finishLss(lines);
        return;
    }
    if (action == M::LssActivateBitTiming) {
        finishLss({pre + QStringLiteral("OK")});
        return;
    }
    if (result == M::LssSuccess) {
        finishLss({action == M::LssInquireNodeId ? pre + QString::number(value.toUInt()) : pre + QStringLiteral("OK")});
        return;
    }
    const int code = result == M::LssTimeout ? R::Timeout
                     : action == M::LssStoreConfiguration ? R::LssStoreFailed : R::LssFailed;
    finishLss({R::error(r.sequence, code, QString())});
}
