#include "sdocia309client.h"

#include "abstractcanadapter.h"
#include "canopenmasterclass.h"

#include <QDebug>

namespace {
// CiA 309-3 data type names of the types a gateway transfer accepts.
const struct {
    CAN::CANopenDataType type;
    const char* name;
} kTypeNames[] = {
    {CAN::BOOLEAN, "b"},         {CAN::INTEGER8, "i8"},        {CAN::INTEGER16, "i16"},
    {CAN::INTEGER32, "i32"},     {CAN::UNSIGNED8, "u8"},       {CAN::UNSIGNED16, "u16"},
    {CAN::UNSIGNED32, "u32"},    {CAN::REAL32, "r32"},         {CAN::VISIBLE_STRING, "vs"},
    {CAN::OCTET_STRING, "os"},   {CAN::TIME_OF_DAY, "t"},      {CAN::DOMAIN, "d"},
    {CAN::INTEGER24, "i24"},     {CAN::REAL64, "r64"},         {CAN::INTEGER64, "i64"},
    {CAN::UNSIGNED24, "u24"},    {CAN::UNSIGNED40, "u40"},     {CAN::UNSIGNED48, "u48"},
    {CAN::UNSIGNED64, "u64"},
};

// Reads an error code: "0x" hexadecimal; eight digits without prefix are an
// SDO abort code, also hexadecimal; fewer digits a decimal gateway code.
// Trailing punctuation (a gateway may glue a '#' or ',') is ignored.
bool readCode(QString text, quint32* code)
{
    while (!text.isEmpty() && !text.back().isLetterOrNumber())
        text.chop(1);
    bool ok = false;
    quint32 value = 0;
    if (text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        value = text.mid(2).toUInt(&ok, 16);
    else if (text.size() == 8)
        value = text.toUInt(&ok, 16);
    else
        value = text.toUInt(&ok, 10);
    if (ok)
        *code = value;
    return ok;
}
} // namespace

SDOCiA309Client::SDOCiA309Client(QObject* parent)
    : CANopenService(parent)
{
    CanopenMaster::registerMetaTypes();
    for (const auto& row : kTypeNames)
        typeNames.insert(int(row.type), QString::fromLatin1(row.name));
}

SDOCiA309Client::SDOCiA309Client(CanScheduler* scheduler, QObject* parent)
    : SDOCiA309Client(parent)
{
    setCanScheduler(scheduler);
}

// ---------------------------------------------------------------- helpers

QString SDOCiA309Client::typeName(CAN::CANopenDataType type)
{
    for (const auto& row : kTypeNames)
        if (row.type == type)
            return QString::fromLatin1(row.name);
    return QString();
}

CAN::CANopenDataType SDOCiA309Client::typeFromName(const QString& name, bool* ok)
{
    for (const auto& row : kTypeNames)
        if (name.compare(QLatin1String(row.name), Qt::CaseInsensitive) == 0) {
            *ok = true;
            return row.type;
        }
    *ok = false;
    return CAN::UNSIGNED32;
}

QString SDOCiA309Client::formatValue(CAN::CANopenDataType type, const QVariant& value)
{
    switch (type) {
    case CAN::BOOLEAN: case CAN::INTEGER8: case CAN::INTEGER16: case CAN::INTEGER24: case CAN::INTEGER32:
        return QString::number(value.toInt());
    case CAN::INTEGER64:
        return QString::number(value.toLongLong());
    case CAN::UNSIGNED8: case CAN::UNSIGNED16: case CAN::UNSIGNED24: case CAN::UNSIGNED32:
        return QString::number(value.toUInt());
    case CAN::UNSIGNED40: case CAN::UNSIGNED48: case CAN::UNSIGNED64:
        return QString::number(value.toULongLong());
    case CAN::REAL32: case CAN::REAL64:
        return QString::number(value.toDouble(), 'g', 6);
    case CAN::DOMAIN:
        return QString::fromLatin1(value.toByteArray().toBase64());
    case CAN::VISIBLE_STRING: {
        // A string with blanks or quotes goes in double quotes, as gateways
        // answer such strings ("" stands for one quote inside).
        QString text = value.toString();
        if (text.contains(QLatin1Char(' ')) || text.contains(QLatin1Char('"')))
            text = QLatin1Char('"') + text.replace(QLatin1String("\""), QLatin1String("\"\"")) + QLatin1Char('"');
        return text;
    }
    default: // OCTET_STRING and TIME_OF_DAY: the value's text as it stands
        return value.toString();
    }
}

QStringList SDOCiA309Client::splitLine(const QString& line)
{
    QStringList pieces;
    QString piece;
    bool quoted = false, inPiece = false;
    for (int i = 0; i < line.size(); ++i) {
        const QChar c = line.at(i);
        if (quoted) {
            if (c != QLatin1Char('"'))
                piece += c;
            else if (i + 1 < line.size() && line.at(i + 1) == QLatin1Char('"'))
                piece += line.at(++i);
            else
                quoted = false;
        } else if (c == QLatin1Char('"') && !inPiece) {
            quoted = inPiece = true;
        } else if (c == QLatin1Char(' ') || c == QLatin1Char('\t') || c == QLatin1Char('\r')) {
            if (inPiece)
                pieces << piece;
            piece.clear();
            inPiece = false;
        } else {
            piece += c;
            inPiece = true;
        }
    }
    if (inPiece)
        pieces << piece;
    return pieces;
}

quint32 SDOCiA309Client::errorCode(const QStringList& pieces)
{
    // Accepted forms: "... Error <code>", "... ERROR <code>" (a word of its
    // own followed by the code), "ERROR:<code>" glued, and "ERROR: <code>".
    // The code's base: see readCode. 0 when no code is found.
    int at = pieces.indexOf(QStringLiteral("Error"));
    if (at < 0)
        at = pieces.indexOf(QStringLiteral("ERROR"));
    quint32 code = 0;
    if (at >= 0 && at + 1 < pieces.size() && readCode(pieces.at(at + 1), &code))
        return code;
    for (int i = 0; i < pieces.size(); ++i) {
        const QString& p = pieces.at(i);
        if (!p.startsWith(QLatin1String("ERROR:"), Qt::CaseInsensitive))
            continue;
        const QString rest = p.mid(6);
        if (!rest.isEmpty() ? readCode(rest, &code) : (i + 1 < pieces.size() && readCode(pieces.at(i + 1), &code)))
            return code;
    }
    return 0;
}

QVariant SDOCiA309Client::parseValue(CAN::CANopenDataType type, const QStringList& pieces)
{
    // Numbers with automatic base: "0x" hexadecimal, a leading 0 octal.
    const QString last = pieces.isEmpty() ? QString() : pieces.last();
    switch (type) {
    case CAN::BOOLEAN: case CAN::UNSIGNED8: case CAN::UNSIGNED16: case CAN::UNSIGNED24: case CAN::UNSIGNED32:
        return QVariant(last.toUInt(nullptr, 0));
    case CAN::INTEGER8: case CAN::INTEGER16: case CAN::INTEGER24: case CAN::INTEGER32:
        return QVariant(last.toInt(nullptr, 0));
    case CAN::INTEGER64:
        return QVariant(last.toLongLong(nullptr, 0));
    case CAN::UNSIGNED40: case CAN::UNSIGNED48: case CAN::UNSIGNED64:
        return QVariant(last.toULongLong(nullptr, 0));
    case CAN::REAL32: case CAN::REAL64:
        return QVariant(last.toFloat()); // REAL64 too is reported as a float
    case CAN::VISIBLE_STRING:
        return QVariant(pieces.join(QLatin1Char(' ')));
    default: // OCTET_STRING, DOMAIN, and TIME_OF_DAY (no conversion defined): the text
        return QVariant(last);
    }
}

// ---------------------------------------------------------------- set-up

CAN::RetType SDOCiA309Client::setCanScheduler(CanScheduler* scheduler)
{
    if (connectedAdapter)
        disconnect(connectedAdapter.data(), &AbstractCanAdapter::newCiA309Response, this,
                   &SDOCiA309Client::newResponseString);
    mScheduler = scheduler;
    connectedAdapter = adapter();
    if (!connectedAdapter)
        return CAN::Error;
    connect(connectedAdapter.data(), &AbstractCanAdapter::newCiA309Response, this,
            &SDOCiA309Client::newResponseString);
    return send(QStringLiteral("set sdo_timeout %1").arg(sdoTimeout));
}

CAN::RetType SDOCiA309Client::setSdoTimeout(quint32 ms)
{
    sdoTimeout = ms;
    if (mScheduler)
        send(QStringLiteral("set sdo_timeout %1").arg(ms));
    return CAN::Ok;
}

CAN::RetType SDOCiA309Client::send(const QString& request)
{
    AbstractCanAdapter* a = adapter();
    if (!a)
        return CAN::Error;
    qint16 sequence = -1;
    return a->sendCiA309Request(request, sequence);
}

// -------------------------------------------------------------- requests

CAN::RetType SDOCiA309Client::read(quint8 node, quint16 idx, quint8 sub, CAN::CANopenDataType type)
{
    if (state != Idle || !typeNames.contains(int(type)) || !adapter())
        return CAN::Busy;
    state = type == CAN::DOMAIN ? DomainReadStarted : Waiting;
    index = idx;
    subIndex = sub;
    dataType = type;
    domainText.clear();
    const QString request = QStringLiteral("%1 r 0x%2 %3 %4")
                                .arg(node)
                                .arg(idx, 0, 16)
                                .arg(sub)
                                .arg(typeNames.value(int(type)));
    qint16 sequence = -1;
    const CAN::RetType r = adapter()->sendCiA309Request(request, sequence);
    expectedSequence = sequence;
    return r; // a refused line leaves the state for the caller's abort
}

CAN::RetType SDOCiA309Client::write(quint8 node, quint16 idx, quint8 sub, CAN::CANopenDataType type, QVariant value)
{
    if (state != Idle || !typeNames.contains(int(type)) || !adapter())
        return CAN::Busy;
    state = type == CAN::DOMAIN ? DomainWriteStarted : Waiting;
    index = idx;
    subIndex = sub;
    dataType = type;
    const QString request = QStringLiteral("%1 w 0x%2 %3 %4 %5")
                                .arg(node)
                                .arg(idx, 0, 16)
                                .arg(sub)
                                .arg(typeNames.value(int(type)), formatValue(type, value));
    qint16 sequence = -1;
    const CAN::RetType r = adapter()->sendCiA309Request(request, sequence);
    expectedSequence = sequence;
    return r;
}

CAN::RetType SDOCiA309Client::abort(quint32 abortCode)
{
    // Nothing goes to the gateway, and the awaited number stays: an error
    // line still coming for the aborted request is reported as well.
    state = Idle;
    Q_EMIT errorReceived(index, subIndex, abortCode);
    return CAN::Ok;
}

QByteArray SDOCiA309Client::getCurrentlyReceivedData() const
{
    return QByteArray::fromBase64(domainText.toLatin1());
}

// --------------------------------------------------------------- answers

void SDOCiA309Client::newResponseString(QString response)
{
    const QStringList lines = response.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& line : lines)
        handleResponseLine(line);
}

void SDOCiA309Client::finish()
{
    expectedSequence = -1;
    state = Idle;
}

// Answer lines: "[seq] OK", "[seq] <value>" (a string may come in double
// quotes), error lines in the forms errorCode() reads, "[seq] BLOCK a b"
// progress lines of a DOMAIN transfer, and DOMAIN data as base64 in lines with
// the request's number (one line without BLOCK lines is a whole upload).
// CR LF line ends are accepted.
void SDOCiA309Client::handleResponseLine(QString line)
{
    if (expectedSequence == -1)
        return;
    const QStringList pieces = splitLine(line);
    if (pieces.isEmpty())
        return;
    QString head = pieces.first();
    if (!head.startsWith(QLatin1Char('[')) || !head.endsWith(QLatin1Char(']')))
        return;
    bool ok = false;
    const int sequence = head.mid(1, head.size() - 2).toInt(&ok, 10);
    if (!ok || sequence != expectedSequence)
        return;
    const QStringList rest = pieces.mid(1);

    // An error word outside a quoted value makes an error line.
    QString unquoted = line;
    if (line.count(QLatin1Char('"')) >= 2)
        unquoted = line.left(line.indexOf(QLatin1Char('"')));
    if (unquoted.contains(QLatin1String("ERROR"), Qt::CaseInsensitive)) {
        const quint32 code = errorCode(rest);
        qDebug() << Q_FUNC_INFO << "errorCode" << code;
        finish();
        Q_EMIT errorReceived(index, subIndex, code);
        return;
    }

    const int block = rest.indexOf(QStringLiteral("BLOCK"));
    const bool okLine = rest.contains(QStringLiteral("OK"));
    switch (state) {
    case Waiting:
    case DomainWriteDone:
    case DomainWriteStarted: // a gateway may answer a DOMAIN write with OK alone
        if (okLine) {
            finish();
            Q_EMIT resultReceived(index, subIndex, QVariant(0));
            return;
        }
        if (block >= 0) {
            if (state == Waiting)
                return; // no blocks in an ordinary transfer
            break;
        }
        if (state == Waiting) {
            const quint16 idx = index;
            const quint8 sub = subIndex;
            finish();
            index = 0;
            subIndex = 0;
            Q_EMIT resultReceived(idx, sub, parseValue(dataType, rest));
        }
        return;
    case DomainReadStarted:
    case DomainReadBlocks:
    case DomainReadLastBlock:
        if (block >= 0)
            break;
        if (okLine)
            return;
        domainText += rest.join(QString());
        if (state == DomainReadBlocks)
            return;
        finish();
        Q_EMIT progress(100);
        Q_EMIT resultReceived(index, subIndex, getCurrentlyReceivedData());
        return;
    default:
        return;
    }

    // "BLOCK <done> <total>": progress, and the next step once both agree.
    const quint32 done = rest.value(block + 1).toUInt();
    const quint32 total = rest.value(block + 2).toUInt();
    if (total != 0)
        Q_EMIT progress(quint8(quint64(done) * 100 / total));
    const bool writing = state == DomainWriteStarted || state == DomainWriteDone;
    if (writing)
        state = done == total ? DomainWriteDone : DomainWriteStarted;
    else
        state = done == total ? DomainReadLastBlock : DomainReadBlocks;
}
