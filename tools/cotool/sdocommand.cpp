#include "sdocommand.h"

#include "netnotation.h"
#include "sdocia309client.h"
#include "sdoclient.h"
#include "sdovaluetext.h"
#include "toolbus.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <cstdio>
#include <unistd.h>

SdoCommand::SdoCommand()
    : mOutputOption({QStringLiteral("o"), QStringLiteral("output")},
                    QStringLiteral("read: save the value's bytes to this file."), QStringLiteral("file"))
    , mUsdoOption(QStringLiteral("usdo"), QStringLiteral("Use USDO (CANopen FD, values up to 56 bytes)."))
    , mBlockOption(QStringLiteral("block"), QStringLiteral("Use block transfer for strings and domains."))
    , mRoutingOption(QStringLiteral("routing"),
                     QStringLiteral("Reach the node in network NET through the gateway node NODE (SDO routing)."),
                     QStringLiteral("NET:NODE"))
    , mTimeoutOption(QStringLiteral("timeout"), QStringLiteral("SDO time-out in ms (default 1000)."),
                     QStringLiteral("ms"))
{
}

void SdoCommand::addOptions(QCommandLineParser& parser)
{
    parser.addPositionalArgument(QStringLiteral("read|write"), QStringLiteral("What to do."));
    parser.addPositionalArgument(QStringLiteral("node"), QStringLiteral("Node-ID 1..127."));
    parser.addPositionalArgument(QStringLiteral("index"), QStringLiteral("Index in hexadecimal (1018 or 0x1018)."));
    parser.addPositionalArgument(QStringLiteral("sub"), QStringLiteral("Sub-index in hexadecimal (0..FF)."));
    parser.addPositionalArgument(QStringLiteral("type"),
                                 QStringLiteral("b, i8, i16, i24, i32, i64, u8, u16, u24, u32, u40, u48, u64, r32, "
                                                "r64, vs, os, d."));
    parser.addPositionalArgument(QStringLiteral("value"),
                                 QStringLiteral("write: a number (decimal or 0x-hex), a text, or @file for the "
                                                "bytes of a file."),
                                 QStringLiteral("[value]"));
    parser.addOptions({mOutputOption, mUsdoOption, mBlockOption, mRoutingOption, mTimeoutOption});
}




int SdoCommand::run(const QCommandLineParser& parser, const ToolOptions& options)
{
    const QStringList args = parser.positionalArguments();
    if (args.isEmpty() || (args[0] != QLatin1String("read") && args[0] != QLatin1String("write")))
        return usageError(QStringLiteral("read or write? (e.g. cotool sdo read 5 1018 1 u32)"));
    const bool write = args[0] == QLatin1String("write");
    if (args.size() != (write ? 6 : 5))
        return usageError(write ? QStringLiteral("write wants NODE INDEX SUB TYPE VALUE")
                                : QStringLiteral("read wants NODE INDEX SUB TYPE"));
    quint8 node = 0;
    QString error;
    if (!NetNotation::parseNodeId(args[1], false, node, &error))
        return usageError(error);
    bool ok = false;
    QString indexText = args[2];
    if (indexText.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        indexText = indexText.mid(2);
    const uint index = indexText.toUInt(&ok, 16);
    if (!ok || index > 0xFFFF)
        return usageError(QStringLiteral("'%1' is not an index (hexadecimal, 0..FFFF)").arg(args[2]));
    QString subText = args[3];
    if (subText.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        subText = subText.mid(2);
    const uint sub = subText.toUInt(&ok, 16);
    if (!ok || sub > 0xFF)
        return usageError(QStringLiteral("'%1' is not a sub-index (hexadecimal, 0..FF)").arg(args[3]));
    const CAN::CANopenDataType type = SDOCiA309Client::typeFromName(args[4], &ok);
    if (!ok)
        return usageError(QStringLiteral("unknown type '%1' (u8, i16, u32, r32, vs, d, ...)").arg(args[4]));
    quint16 net = 0;
    quint8 gatewayNode = 0;
    if (parser.isSet(mRoutingOption)) {
        const QStringList parts = parser.value(mRoutingOption).split(QLatin1Char(':'));
        const uint n = parts.value(0).toUInt(&ok);
        quint8 g = 0;
        if (parts.size() != 2 || !ok || n < 1 || n > 0xFFFF || !NetNotation::parseNodeId(parts[1], false, g, &error))
            return usageError(QStringLiteral("--routing wants NET:NODE (network 1..65535, node 1..127)"));
        net = quint16(n);
        gatewayNode = g;
    }
    qint64 timeoutMs = 0;
    if (!positiveOption(parser, mTimeoutOption, 600000, timeoutMs, &error))
        return usageError(error);
    const bool usdo = parser.isSet(mUsdoOption);

    QVariant value;
    if (write) {
        const QString text = args[5];
        if (text.startsWith(QLatin1Char('@'))) {
            QFile f(text.mid(1));
            if (!f.open(QIODevice::ReadOnly))
                return usageError(QStringLiteral("cannot read '%1': %2").arg(text.mid(1), f.errorString()));
            value = f.readAll();
        } else if (!SdoValueText::parseValue(type, text, !options.hasGateway() && !usdo, value, &error)) {
            return usageError(error);
        }
    }

    ToolBus bus;
    if (!bus.open(options, &error))
        return failure(error);
    SDOClient::mUseBlockTransfer = parser.isSet(mBlockOption);
    SDOClient client(0x580u + node, 0x600u + node, bus.scheduler());
    if (timeoutMs)
        client.setSdoTimeout(quint32(timeoutMs));
    if (usdo)
        client.activateUSDO(true, 0x29);
    if (net)
        client.setRouting(net, gatewayNode);

    bool done = false, failed = false;
    quint32 abortCode = 0;
    CAN::RetType refused = CAN::Ok;
    QVariant result;
    const bool terminal = isatty(fileno(stderr));
    bool progressShown = false;
    QObject::connect(&client, &SDOClient::resultReceived, &client, [&](quint16, quint8, QVariant v) {
        result = v;
        done = true;
        QCoreApplication::quit();
    });
    QObject::connect(&client, &SDOClient::errorReceived, &client, [&](quint16, quint8, quint32 code) {
        abortCode = code;
        failed = done = true;
        QCoreApplication::quit();
    });
    QObject::connect(&client, &SDOClient::opError, &client, [&](quint16, quint8, CAN::RetType r) { refused = r; });
    QObject::connect(&client, &SDOClient::progress, &client, [&](quint8 percent) {
        if (!terminal)
            return;
        const int filled = qBound(0, int(percent), 100) * 30 / 100;
        std::fprintf(stderr, "\r[%s%s] %3d%%", QByteArray(filled, '#').constData(),
                     QByteArray(30 - filled, ' ').constData(), int(percent));
        progressShown = true;
    });

    const CAN::RetType started = write ? client.write(quint16(index), quint8(sub), type, value)
                                       : client.read(quint16(index), quint8(sub), type);
    if (started != CAN::Ok)
        return failure(QStringLiteral("the request was refused (error %1)").arg(int(refused != CAN::Ok ? refused : started)));
    if (!done)
        runEventLoop(qint64(client.getSdoTimeout()) + 3000);
    if (progressShown)
        std::fprintf(stderr, "\n");
    if (!done)
        return interrupted() ? Failure : failure(QStringLiteral("no outcome within the time-out"));
    if (failed) {
        const QString text = usdo ? SDOClient::interpretUsdoAbort(abortCode) : SDOClient::interpretSdoAbort(abortCode);
        return failure(QStringLiteral("%1 abort 0x%2: %3")
                           .arg(usdo ? QStringLiteral("USDO") : QStringLiteral("SDO"))
                           .arg(abortCode, 8, 16, QLatin1Char('0'))
                           .arg(text));
    }
    const QString where = QStringLiteral("node %1 %2h sub %3h").arg(node)
                              .arg(QString::number(index, 16).toUpper().rightJustified(4, QLatin1Char('0')))
                              .arg(QString::number(sub, 16).toUpper().rightJustified(2, QLatin1Char('0')));
    if (write) {
        out(QStringLiteral("%1 written: %2").arg(where, SdoValueText::formatValue(type, value)));
        return Success;
    }
    if (parser.isSet(mOutputOption)) {
        QFile f(parser.value(mOutputOption));
        const QByteArray bytes = result.toByteArray();
        if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size())
            return failure(QStringLiteral("cannot write '%1': %2").arg(f.fileName(), f.errorString()));
        out(QStringLiteral("%1: %2 bytes saved to %3").arg(where).arg(bytes.size()).arg(f.fileName()));
        return Success;
    }
    out(QStringLiteral("%1: %2").arg(where, SdoValueText::formatValue(type, result)));
    return Success;
}
