#include "sdocommand.h"

#include "netnotation.h"
#include "sdocia309client.h"
#include "sdoclient.h"
#include "toolbus.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QtEndian>
#include <climits>
#include <cstring>
#include <cstdio>
#include <unistd.h>

namespace {
bool isSigned(CAN::CANopenDataType t)
{
    switch (t) {
    case CAN::INTEGER8: case CAN::INTEGER16: case CAN::INTEGER24: case CAN::INTEGER32:
    case CAN::INTEGER40: case CAN::INTEGER48: case CAN::INTEGER56: case CAN::INTEGER64:
        return true;
    default:
        return false;
    }
}

bool isReal(CAN::CANopenDataType t)
{
    return t == CAN::REAL32 || t == CAN::REAL64;
}

bool isBytes(CAN::CANopenDataType t)
{
    return t == CAN::VISIBLE_STRING || t == CAN::OCTET_STRING || t == CAN::DOMAIN || t == CAN::UNICODE_STRING;
}

// Little-endian bytes of a value of `size` bytes.
QByteArray leBytes(quint64 raw, int size)
{
    QByteArray b(size, '\0');
    for (int i = 0; i < size; ++i)
        b[i] = char(raw >> (8 * i));
    return b;
}

// The value of little-endian bytes, sign-extended for signed types.
QVariant fromLeBytes(CAN::CANopenDataType type, const QByteArray& bytes)
{
    quint64 raw = 0;
    for (int i = 0; i < bytes.size() && i < 8; ++i)
        raw |= quint64(quint8(bytes[i])) << (8 * i);
    if (type == CAN::REAL64) {
        double d;
        std::memcpy(&d, &raw, sizeof d);
        return d;
    }
    const int bits = 8 * int(bytes.size());
    if (isSigned(type) && bits > 0 && bits < 64 && (raw >> (bits - 1)) & 1)
        raw |= ~quint64(0) << bits;
    return isSigned(type) ? QVariant(qlonglong(raw)) : QVariant(qulonglong(raw));
}
} // namespace

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

int SdoCommand::typeSize(CAN::CANopenDataType type)
{
    switch (type) {
    case CAN::BOOLEAN: case CAN::INTEGER8: case CAN::UNSIGNED8: return 1;
    case CAN::INTEGER16: case CAN::UNSIGNED16: return 2;
    case CAN::INTEGER24: case CAN::UNSIGNED24: return 3;
    case CAN::INTEGER32: case CAN::UNSIGNED32: case CAN::REAL32: return 4;
    case CAN::INTEGER40: case CAN::UNSIGNED40: return 5;
    case CAN::INTEGER48: case CAN::UNSIGNED48: return 6;
    case CAN::INTEGER56: case CAN::UNSIGNED56: case CAN::TIME_OF_DAY: case CAN::TIME_DIFFERENCE: return 7;
    case CAN::INTEGER64: case CAN::UNSIGNED64: case CAN::REAL64: return 8;
    default: return 0;
    }
}

bool SdoCommand::parseValue(CAN::CANopenDataType type, const QString& text, bool asBytes, QVariant& value,
                            QString* error)
{
    const int size = typeSize(type);
    if (isBytes(type) || size == 0) {
        value = text.toUtf8();
        return true;
    }
    bool ok = false;
    if (isReal(type)) {
        const double d = text.toDouble(&ok);
        if (!ok) {
            *error = QStringLiteral("'%1' is not a number").arg(text);
            return false;
        }
        if (type == CAN::REAL32) {
            value = float(d);
            return true;
        }
        quint64 raw;
        std::memcpy(&raw, &d, sizeof raw);
        value = asBytes ? QVariant(leBytes(raw, 8)) : QVariant(d);
        return true;
    }
    const int bits = 8 * size;
    if (isSigned(type)) {
        const qlonglong v = text.toLongLong(&ok, 0);
        const qlonglong low = bits == 64 ? LLONG_MIN : -(qlonglong(1) << (bits - 1));
        const qlonglong high = bits == 64 ? LLONG_MAX : (qlonglong(1) << (bits - 1)) - 1;
        if (!ok || v < low || v > high) {
            *error = QStringLiteral("'%1' is not a %2-bit signed number").arg(text).arg(bits);
            return false;
        }
        value = size > 4 ? (asBytes ? QVariant(leBytes(quint64(v), size)) : QVariant(v)) : QVariant(int(v));
        return true;
    }
    const qulonglong v = type == CAN::BOOLEAN && (text == QLatin1String("true") || text == QLatin1String("false"))
                             ? (ok = true, qulonglong(text == QLatin1String("true")))
                             : text.toULongLong(&ok, 0);
    const qulonglong high = type == CAN::BOOLEAN ? 1 : bits == 64 ? ULLONG_MAX : (qulonglong(1) << bits) - 1;
    if (!ok || v > high || text.startsWith(QLatin1Char('-'))) {
        *error = QStringLiteral("'%1' is not a %2").arg(text, type == CAN::BOOLEAN ? QStringLiteral("boolean (0 or 1)")
                                                                                  : QStringLiteral("%1-bit unsigned number").arg(bits));
        return false;
    }
    value = size > 4 ? (asBytes ? QVariant(leBytes(v, size)) : QVariant(v)) : QVariant(uint(v));
    return true;
}

QString SdoCommand::formatValue(CAN::CANopenDataType type, const QVariant& value)
{
    if (type == CAN::VISIBLE_STRING || type == CAN::UNICODE_STRING)
        return value.toString();
    const int size = typeSize(type);
    if (isBytes(type) || size == 0) {
        const QByteArray b = value.toByteArray();
        QString preview = QString::fromLatin1(b.left(16).toHex(' '));
        if (b.size() > 16)
            preview += QStringLiteral(" ...");
        return QStringLiteral("%1 byte%2%3%4").arg(b.size()).arg(b.size() == 1 ? "" : "s")
            .arg(b.isEmpty() ? QString() : QStringLiteral(": ")).arg(preview);
    }
    // Over CAN the types longer than four bytes come as their bytes.
    QVariant v = value.userType() == QMetaType::QByteArray ? fromLeBytes(type, value.toByteArray()) : value;
    if (isReal(type))
        return QString::number(v.toDouble(), 'g', type == CAN::REAL32 ? 7 : 16);
    const quint64 mask = size >= 8 ? ~quint64(0) : (quint64(1) << (8 * size)) - 1;
    const quint64 raw = isSigned(type) ? quint64(v.toLongLong()) : v.toULongLong();
    const QString dec = isSigned(type) ? QString::number(v.toLongLong()) : QString::number(raw & mask);
    return QStringLiteral("%1 (0x%2)").arg(dec, QString::number(raw & mask, 16).rightJustified(2 * size, QLatin1Char('0')));
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
        } else if (!parseValue(type, text, !options.hasGateway() && !usdo, value, &error)) {
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
        out(QStringLiteral("%1 written: %2").arg(where, formatValue(type, value)));
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
    out(QStringLiteral("%1: %2").arg(where, formatValue(type, result)));
    return Success;
}
