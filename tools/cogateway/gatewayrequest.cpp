#include "gatewayrequest.h"

#include "sdocia309client.h"

#include <QRegularExpression>

namespace {
bool readNumber(const QString& text, quint32& value)
{
    bool ok = false;
    const qulonglong v = text.toULongLong(&ok, 0);
    value = quint32(v);
    return ok && v <= 0xFFFFFFFFull;
}

GatewayRequest invalid(GatewayRequest r, int code, const QString& text)
{
    r.kind = GatewayRequest::Invalid;
    r.errorCode = code;
    r.errorText = text;
    return r;
}
} // namespace

QString GatewayRequest::prefix(int sequence)
{
    return sequence >= 0 ? QStringLiteral("[%1] ").arg(sequence) : QString();
}

QString GatewayRequest::errorName(int code)
{
    switch (code) {
    case RequestNotSupported: return QStringLiteral("Request not supported");
    case SyntaxError: return QStringLiteral("Syntax error");
    case NotProcessed: return QStringLiteral("Request not processed due to internal state");
    case Timeout: return QStringLiteral("Time-out");
    case UnsupportedNet: return QStringLiteral("Unsupported net");
    case UnsupportedNode: return QStringLiteral("Unsupported node");
    case LssFailed: return QStringLiteral("LSS command failed");
    case LssStoreFailed: return QStringLiteral("LSS parameter storing failed");
    case OutOfMemory: return QStringLiteral("Running out of memory");
    default: return QStringLiteral("Error");
    }
}

QString GatewayRequest::error(int sequence, int code, const QString& text)
{
    return prefix(sequence) + QStringLiteral("ERROR:%1 #%2").arg(code).arg(text.isEmpty() ? errorName(code) : text);
}

int GatewayRequest::leadingSequence(const QByteArray& line)
{
    static const QRegularExpression rx(QStringLiteral("^\\s*\\[(\\d{1,9})\\]"));
    const QRegularExpressionMatch m = rx.match(QString::fromLatin1(line.left(16)));
    return m.hasMatch() ? m.captured(1).toInt() : -1;
}

GatewayRequest GatewayRequest::parse(const QString& line)
{
    GatewayRequest r;
    QStringList p = SDOCiA309Client::splitLine(line.trimmed());
    if (p.isEmpty() || !p.first().startsWith(QLatin1Char('[')) || !p.first().endsWith(QLatin1Char(']')))
        return invalid(r, SyntaxError, QStringLiteral("Syntax error: a request begins with [sequence]"));
    bool ok = false;
    r.sequence = p.takeFirst().mid(1).chopped(1).toInt(&ok);
    if (!ok || r.sequence < 0) {
        r.sequence = -1;
        return invalid(r, SyntaxError, QStringLiteral("Syntax error: bad sequence number"));
    }
    // Optional network and node: one or two numbers before the command.
    QList<quint32> address;
    quint32 n = 0;
    while (!p.isEmpty() && address.size() < 2 && readNumber(p.first(), n)) {
        address << n;
        p.removeFirst();
    }
    if (p.isEmpty())
        return invalid(r, SyntaxError, QStringLiteral("Syntax error: no command"));
    if (address.size() == 2 && address.first() != 1)
        return invalid(r, UnsupportedNet, QString());
    if (!address.isEmpty()) {
        if (address.last() > 127)
            return invalid(r, UnsupportedNode, QString());
        r.node = int(address.last());
    }
    const QString command = p.takeFirst().toLower();

    if (command == QLatin1String("r") || command == QLatin1String("read") || command == QLatin1String("w")
        || command == QLatin1String("write")) {
        const bool write = command.startsWith(QLatin1Char('w'));
        if (r.node < 1)
            return invalid(r, UnsupportedNode, QStringLiteral("Unsupported node: SDO needs a node 1..127"));
        quint32 index = 0, sub = 0;
        if (p.size() < (write ? 4 : 3) || !readNumber(p[0], index) || index > 0xFFFF || !readNumber(p[1], sub) || sub > 0xFF)
            return invalid(r, SyntaxError, QStringLiteral("Syntax error: %1 INDEX SUB TYPE%2").arg(command, write ? " VALUE" : ""));
        r.type = SDOCiA309Client::typeFromName(p[2], &ok);
        if (!ok)
            return invalid(r, SyntaxError, QStringLiteral("Syntax error: unknown data type '%1'").arg(p[2]));
        if (!write && p.size() != 3)
            return invalid(r, SyntaxError, QStringLiteral("Syntax error: r INDEX SUB TYPE"));
        r.kind = write ? Write : Read;
        r.index = quint16(index);
        r.sub = quint8(sub);
        r.valuePieces = p.mid(3);
        return r;
    }
    static const struct {
        const char* word;
        const char* second; // null: none
        NMTNetwork::NmtCommands command;
    } nmt[] = {{"start", nullptr, NMTNetwork::Start},
               {"stop", nullptr, NMTNetwork::Stop},
               {"preop", nullptr, NMTNetwork::EnterPreoperational},
               {"preoperational", nullptr, NMTNetwork::EnterPreoperational},
               {"reset", "node", NMTNetwork::ResetNode},
               {"reset", "comm", NMTNetwork::ResetCommunication},
               {"reset", "communication", NMTNetwork::ResetCommunication}};
    for (const auto& c : nmt) {
        if (command != QLatin1String(c.word))
            continue;
        if (c.second && (p.isEmpty() || p.first().toLower() != QLatin1String(c.second)))
            continue;
        if (p.size() != (c.second ? 1 : 0))
            return invalid(r, SyntaxError, QStringLiteral("Syntax error: NMT commands take no arguments"));
        if (r.node < 0)
            return invalid(r, UnsupportedNode, QStringLiteral("Unsupported node: give a node, 0 for all"));
        r.kind = Nmt;
        r.nmt = c.command;
        return r;
    }
    if (command == QLatin1String("set")) {
        if (p.size() == 2 && p[0].toLower() == QLatin1String("sdo_timeout") && readNumber(p[1], r.number)
            && r.number <= 0xFFFF) {
            r.kind = SetSdoTimeout;
            return r;
        }
        return invalid(r, RequestNotSupported, QStringLiteral("Request not supported: set sdo_timeout MS only"));
    }
    if (command.startsWith(QLatin1String("lss_"))) {
        for (const QString& a : p) {
            quint32 v = 0;
            if (!readNumber(a, v))
                return invalid(r, SyntaxError, QStringLiteral("Syntax error: '%1' is not a number").arg(a));
            r.lssArguments << v;
        }
        r.kind = Lss;
        r.lssCommand = command;
        return r;
    }
    if (command == QLatin1String("help") || command == QLatin1String("info")) {
        r.kind = Help;
        return r;
    }
    return invalid(r, RequestNotSupported, QStringLiteral("Request not supported: '%1'").arg(command));
}
