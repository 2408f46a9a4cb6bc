#include "lsscommand.h"

#include "canscheduler.h"
#include "netnotation.h"
#include "toolbus.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSet>
#include <QTimer>
#include <cstdio>
#include <unistd.h>

using M = LSSMaster;

LssCommand::LssCommand()
    : mStepOption(QStringLiteral("step"),
                  QStringLiteral("Scan step time in ms (default %1; an unanswered step waits four).").arg(DefaultStepMs),
                  QStringLiteral("ms"))
    , mStartOption(QStringLiteral("start"), QStringLiteral("scan: the first node-ID to give (default 1)."),
                   QStringLiteral("id"))
    , mNoStoreOption(QStringLiteral("no-store"), QStringLiteral("scan: do not store the configuration."))
    , mTableOption(QStringLiteral("table"), QStringLiteral("bitrate: bit timing table (default 0, the standard one)."),
                   QStringLiteral("n"))
    , mActivateOption(QStringLiteral("activate"),
                      QStringLiteral("bitrate: then activate it after this switch delay in ms."), QStringLiteral("ms"))
    , mTimeoutOption(QStringLiteral("timeout"),
                     QStringLiteral("How long to wait for an answer, in ms (default %1).").arg(DefaultAnswerMs),
                     QStringLiteral("ms"))
{
}

void LssCommand::addOptions(QCommandLineParser& parser)
{
    parser.addPositionalArgument(QStringLiteral("action"),
                                 QStringLiteral("scan, classical, switch, set-node, bitrate, store, inquire or "
                                                "identify."));
    parser.addPositionalArgument(QStringLiteral("arguments"),
                                 QStringLiteral("classical VENDOR PRODUCT [REVLOW REVHIGH SERLOW SERHIGH]; switch "
                                                "global waiting|config; switch selective VENDOR PRODUCT REVISION "
                                                "SERIAL; set-node ID; bitrate INDEX. Numbers in decimal or 0x-hex."),
                                 QStringLiteral("[arguments...]"));
    parser.addOptions({mStepOption, mStartOption, mNoStoreOption, mTableOption, mActivateOption, mTimeoutOption});
}

QString LssCommand::identityText(quint32 vendor, quint32 product, quint32 revision, quint32 serial)
{
    const auto hex = [](quint32 v) { return QStringLiteral("0x%1").arg(v, 8, 16, QLatin1Char('0')); };
    return QStringLiteral("vendor %1 product %2 revision %3 serial %4")
        .arg(hex(vendor), hex(product), hex(revision), hex(serial));
}

bool LssCommand::parseNumber(const QString& text, quint32& value)
{
    bool ok = false;
    const qulonglong v = text.toULongLong(&ok, 0);
    value = quint32(v);
    return ok && v <= 0xFFFFFFFFull;
}

void LssCommand::progress(const QString& text) const
{
    if (mTerminal)
        std::fprintf(stderr, "\r%-70s", qPrintable(text));
}

void LssCommand::endProgress() const
{
    if (mTerminal)
        std::fprintf(stderr, "\r%-70s\r", "");
}

int LssCommand::request(const QString& what, M::LssAction action, const std::function<CAN::RetType()>& start,
                        Outcome* outcome)
{
    mOutcomes.clear();
    mAwaited = action;
    const CAN::RetType r = start();
    if (mGateway) {
        // The gateway service waits for the gateway's answer itself.
        if (r != CAN::Ok)
            return failure(QStringLiteral("%1: the gateway answered with an error or not at all (%2)").arg(what).arg(int(r)));
        if (outcome)
            *outcome = Outcome{true, M::LssSuccess, QVariant()};
        return -1;
    }
    if (r != CAN::Ok)
        return failure(QStringLiteral("%1 was refused (error %2)").arg(what).arg(int(r)));
    QElapsedTimer t;
    t.start();
    while (mOutcomes.isEmpty() && !interrupted() && t.elapsed() < 600000)
        waitFor(5);
    if (mOutcomes.isEmpty())
        return Failure;
    const Outcome o = mOutcomes.takeFirst();
    if (outcome)
        *outcome = o;
    if (o.result == M::LssTimeout && action != M::LssActivateBitTiming && action != M::LssFastScan)
        return failure(QStringLiteral("%1: no answer").arg(what));
    if (o.result == M::LssError)
        return failure(QStringLiteral("%1: the device answered error %2").arg(what).arg(o.value.toUInt()));
    return -1;
}

int LssCommand::run(const QCommandLineParser& parser, const ToolOptions& options)
{
    QStringList args = parser.positionalArguments();
    if (args.isEmpty())
        return usageError(QStringLiteral("no LSS action given (e.g. cotool lss scan)"));
    const QString action = args.takeFirst();
    static const QSet<QString> actions{QStringLiteral("scan"),     QStringLiteral("classical"),
                                       QStringLiteral("switch"),   QStringLiteral("set-node"),
                                       QStringLiteral("bitrate"),  QStringLiteral("store"),
                                       QStringLiteral("inquire"),  QStringLiteral("identify")};
    if (!actions.contains(action))
        return usageError(QStringLiteral("unknown LSS action '%1'").arg(action));
    qint64 timeoutMs = 0;
    QString error;
    if (!positiveOption(parser, mTimeoutOption, 60000, timeoutMs, &error))
        return usageError(error);
    mAnswerMs = timeoutMs ? int(timeoutMs) : DefaultAnswerMs;

    ToolBus bus;
    if (!bus.open(options, &error))
        return failure(error);
    mGateway = bus.isGateway();
    mTerminal = isatty(fileno(stderr));
    LSSMaster master(bus.scheduler());
    mMaster = &master;
    master.setTimeout(quint16(mAnswerMs));
    QObject::connect(&master, &LSSMaster::lssResult, &master, [this](M::LssAction a, M::LssResult r, QVariant v) {
        if (a == mAwaited)
            mOutcomes.append(Outcome{true, r, v});
    });
    if (action == QLatin1String("scan"))
        return scan(parser);
    if (action == QLatin1String("classical"))
        return classical(args);
    if (action == QLatin1String("switch"))
        return switchMode(args);
    return simple(action, args, parser);
}

int LssCommand::scan(const QCommandLineParser& parser)
{
    if (mGateway)
        return usageError(QStringLiteral("a gateway offers no fast scan; use 'classical'"));
    qint64 step = 0, start = 0;
    QString error;
    if (!positiveOption(parser, mStepOption, 60000, step, &error) || !positiveOption(parser, mStartOption, 127, start, &error))
        return usageError(error);
    if (!step)
        step = DefaultStepMs;
    quint8 next = quint8(start ? start : 1);
    const bool store = !parser.isSet(mNoStoreOption);

    // Node-IDs in use: whoever sent a boot-up or heartbeat meanwhile.
    QSet<quint8> used;
    QList<CanSender*> listeners;
    QObject context;
    for (quint32 id = 0x701; id <= 0x77F; ++id) {
        CanSender* sender = mMaster->canScheduler()->registerCanId(id);
        listeners << sender;
        QObject::connect(sender, qOverload<CAN::CanRxMessage>(&CanSender::received), &context,
                         [&used](CAN::CanRxMessage m) { used.insert(quint8(m.message.id - 0x700)); });
    }
    const auto cleanup = [&]() {
        for (CanSender* s : listeners)
            mMaster->canScheduler()->unregisterCan(s);
    };
    QElapsedTimer clock;
    clock.start();
    int found = 0;
    int rc = -1;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&]() {
        progress(QStringLiteral("scanning: %1 found, %2 s").arg(found).arg(double(clock.elapsed()) / 1000.0, 0, 'f', 1));
    });
    ticker.start(200);
    for (;;) {
        mMaster->setTimeout(quint16(step));
        Outcome o;
        rc = request(QStringLiteral("fast scan"), M::LssFastScan, [&]() { return mMaster->fastScan(0, 0, 0, 0); }, &o);
        if (rc >= 0 || interrupted())
            break;
        if (o.result != M::LssSuccess) {
            // Time-out 0: nobody answered the opening request; else a confirmation failed.
            if (o.value.toUInt() != 0)
                note(QStringLiteral("a scan lost its device (part %1 unconfirmed); scanning again").arg(o.value.toUInt()));
            else
                break;
            continue;
        }
        quint32 v = 0, p = 0, r = 0, s = 0;
        mMaster->getFastScanValues(&v, &p, &r, &s);
        while (next <= 127 && used.contains(next))
            ++next;
        if (next > 127) {
            endProgress();
            rc = failure(QStringLiteral("no free node-ID left for %1").arg(identityText(v, p, r, s)));
            break;
        }
        mMaster->setTimeout(quint16(mAnswerMs));
        const quint8 node = next;
        rc = request(QStringLiteral("set node-ID %1").arg(node), M::LssConfigureNodeId,
                     [&]() { return mMaster->configureNodeId(node); });
        if (rc >= 0)
            break;
        QString stored = QStringLiteral("not stored");
        if (store) {
            const int storeRc = request(QStringLiteral("store"), M::LssStoreConfiguration,
                                        [&]() { return mMaster->storeConfiguration(); });
            stored = storeRc < 0 ? QStringLiteral("stored") : QStringLiteral("NOT stored");
        }
        // Back to waiting mode: the device takes its new node-ID and boots.
        mMaster->switchModeGlobal(M::LssWaitingState);
        used.insert(node);
        ++found;
        endProgress();
        out(QStringLiteral("found %1: node-ID %2, %3").arg(identityText(v, p, r, s)).arg(node).arg(stored));
    }
    ticker.stop();
    endProgress();
    cleanup();
    if (rc >= 0)
        return rc;
    out(QStringLiteral("%1 device%2 configured in %3 s; no further unconfigured device answers")
            .arg(found).arg(found == 1 ? "" : "s").arg(double(clock.elapsed()) / 1000.0, 0, 'f', 2));
    return interrupted() ? Failure : Success;
}

int LssCommand::classical(const QStringList& args)
{
    if (args.size() != 2 && args.size() != 6)
        return usageError(QStringLiteral("classical wants VENDOR PRODUCT [REVLOW REVHIGH SERLOW SERHIGH]"));
    quint32 n[6] = {0, 0, 0, 0xFFFFFFFF, 0, 0xFFFFFFFF};
    for (int i = 0; i < args.size(); ++i) {
        if (!parseNumber(args.at(i), n[i]))
            return usageError(QStringLiteral("'%1' is not a 32-bit number").arg(args.at(i)));
    }
    if (mGateway) {
        // The gateway reports what it finds on its own; its lines are not ours to parse.
        const int rc = request(QStringLiteral("classical scan"), M::LssClassicalScan,
                               [&]() { return mMaster->classicalScan(n[0], n[1], n[2], n[3], n[4], n[5]); });
        if (rc >= 0)
            return rc;
        out(QStringLiteral("sent the identity query to the gateway"));
        return Success;
    }
    const CAN::RetType r = args.size() == 2 ? mMaster->classicalScan(n[0], n[1])
                                            : mMaster->classicalScan(n[0], n[1], n[2], n[3], n[4], n[5]);
    mAwaited = M::LssClassicalScan;
    if (r != CAN::Ok)
        return failure(QStringLiteral("classical scan was refused (error %1)").arg(int(r)));
    QElapsedTimer clock;
    clock.start();
    int found = 0;
    for (;;) {
        while (mOutcomes.isEmpty() && !interrupted()) {
            waitFor(50);
            progress(QStringLiteral("scanning: %1 found, %2 s").arg(found).arg(double(clock.elapsed()) / 1000.0, 0, 'f', 1));
        }
        if (interrupted()) {
            mMaster->abortClassicalScan();
            endProgress();
            return Failure;
        }
        const Outcome o = mOutcomes.takeFirst();
        if (o.result != M::LssSuccess) {
            endProgress();
            return failure(QStringLiteral("classical scan ended early"));
        }
        const QStringList id = o.value.toStringList();
        if (id.size() != 4 || id.first().toUInt() == 0xFFFFFFFFu)
            break;
        ++found;
        endProgress();
        out(QStringLiteral("found %1").arg(identityText(id[0].toUInt(), id[1].toUInt(), id[2].toUInt(), id[3].toUInt())));
    }
    endProgress();
    out(QStringLiteral("classical scan done: %1 found in %2 s").arg(found).arg(double(clock.elapsed()) / 1000.0, 0, 'f', 2));
    return Success;
}

int LssCommand::switchMode(const QStringList& args)
{
    if (args.size() == 2 && args.at(0) == QLatin1String("global")) {
        const QString mode = args.at(1);
        if (mode != QLatin1String("waiting") && mode != QLatin1String("config"))
            return usageError(QStringLiteral("switch global wants waiting or config"));
        const M::LssGlobalState state = mode == QLatin1String("config") ? M::LssConfigurationState : M::LssWaitingState;
        const CAN::RetType r = mMaster->switchModeGlobal(state);
        if (r != CAN::Ok)
            return failure(QStringLiteral("switch global %1 failed (error %2)").arg(mode).arg(int(r)));
        out(QStringLiteral("all devices switched to %1 mode").arg(mode == QLatin1String("config") ? "configuration" : "waiting"));
        return Success;
    }
    if (args.size() == 5 && args.at(0) == QLatin1String("selective")) {
        quint32 n[4];
        for (int i = 0; i < 4; ++i) {
            if (!parseNumber(args.at(i + 1), n[i]))
                return usageError(QStringLiteral("'%1' is not a 32-bit number").arg(args.at(i + 1)));
        }
        const int rc = request(QStringLiteral("switch selective"), M::LssSwitchModeSelective,
                               [&]() { return mMaster->switchModeSelective(n[0], n[1], n[2], n[3]); });
        if (rc >= 0)
            return rc;
        out(QStringLiteral("%1 is in configuration mode").arg(identityText(n[0], n[1], n[2], n[3])));
        return Success;
    }
    return usageError(QStringLiteral("switch wants 'global waiting|config' or 'selective VENDOR PRODUCT REVISION SERIAL'"));
}

int LssCommand::simple(const QString& action, const QStringList& args, const QCommandLineParser& parser)
{
    if (action == QLatin1String("set-node")) {
        quint8 node = 0;
        QString error;
        if (args.size() != 1)
            return usageError(QStringLiteral("set-node wants one node-ID"));
        if (args.at(0) != QLatin1String("255") && !NetNotation::parseNodeId(args.at(0), false, node, &error))
            return usageError(error + QStringLiteral(" (or 255: unconfigured)"));
        if (args.at(0) == QLatin1String("255"))
            node = 255;
        const int rc = request(QStringLiteral("set node-ID %1").arg(node), M::LssConfigureNodeId,
                               [&]() { return mMaster->configureNodeId(node); });
        if (rc >= 0)
            return rc;
        out(QStringLiteral("node-ID %1 set; it takes effect when the device leaves configuration mode").arg(node));
        return Success;
    }
    if (action == QLatin1String("bitrate")) {
        quint32 index = 0, table = 0;
        if (args.size() != 1 || !parseNumber(args.at(0), index) || index > 255)
            return usageError(QStringLiteral("bitrate wants one table index 0..255"));
        if (parser.isSet(mTableOption) && (!parseNumber(parser.value(mTableOption), table) || table > 255))
            return usageError(QStringLiteral("--table wants 0..255"));
        int rc = request(QStringLiteral("configure bit timing"), M::LssConfigureBitTiming,
                         [&]() { return mMaster->configureBitTiming(quint8(table), quint8(index)); });
        if (rc >= 0)
            return rc;
        out(QStringLiteral("bit timing %1 of table %2 configured").arg(index).arg(table));
        if (parser.isSet(mActivateOption)) {
            quint32 delay = 0;
            if (!parseNumber(parser.value(mActivateOption), delay) || delay > 65535)
                return usageError(QStringLiteral("--activate wants a delay 0..65535 ms"));
            // No answer exists: the request ends by its time-out.
            rc = request(QStringLiteral("activate bit timing"), M::LssActivateBitTiming,
                         [&]() { return mMaster->activateBitTiming(quint16(delay)); });
            if (rc >= 0)
                return rc;
            out(QStringLiteral("bit timing activated with a switch delay of %1 ms").arg(delay));
        }
        return Success;
    }
    if (!args.isEmpty())
        return usageError(QStringLiteral("%1 takes no arguments").arg(action));
    if (action == QLatin1String("store")) {
        const int rc = request(QStringLiteral("store"), M::LssStoreConfiguration,
                               [&]() { return mMaster->storeConfiguration(); });
        if (rc >= 0)
            return rc;
        out(QStringLiteral("configuration stored"));
        return Success;
    }
    if (action == QLatin1String("inquire")) {
        if (mGateway)
            return usageError(QStringLiteral("a gateway does not return the node-ID; inquire over CAN"));
        Outcome o;
        const int rc = request(QStringLiteral("inquire node-ID"), M::LssInquireNodeId,
                               [&]() { return mMaster->inquireNodeId(); }, &o);
        if (rc >= 0)
            return rc;
        out(QStringLiteral("node-ID %1").arg(o.value.toUInt()));
        return Success;
    }
    // identify: every unconfigured device answers once.
    mOutcomes.clear();
    mAwaited = M::LssIdentifyNonConfigSlaves;
    const CAN::RetType r = mMaster->identifyNonConfigSlaves();
    if (r != CAN::Ok)
        return failure(QStringLiteral("identify was refused (error %1)").arg(int(r)));
    if (mGateway) {
        out(QStringLiteral("sent the query to the gateway"));
        return Success;
    }
    waitFor(mAnswerMs);
    out(QStringLiteral("%1 unconfigured device%2 answered").arg(mOutcomes.size()).arg(mOutcomes.size() == 1 ? "" : "s"));
    return Success;
}
