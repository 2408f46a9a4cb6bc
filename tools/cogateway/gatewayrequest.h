#ifndef GATEWAYREQUEST_H
#define GATEWAYREQUEST_H

#include "cantypes.h"
#include "nmtnetwork.h"

#include <QString>
#include <QStringList>

// One CiA 309-3 request line, parsed (pure; no state):
//   [seq] [[net] node] r|read INDEX SUB TYPE
//   [seq] [[net] node] w|write INDEX SUB TYPE VALUE
//   [seq] [[net] node] start | stop | preop | preoperational | reset node | reset comm[unication]
//   [seq] set sdo_timeout MS
//   [seq] lss_... (the LSS commands, arguments as written)
//   [seq] help
// Numbers are decimal or 0x-hexadecimal; node 0 means all nodes (NMT only);
// only network 1 is served. A string value may be given in double quotes
// ("" inside stands for one quote); a DOMAIN value is base64.
struct GatewayRequest {
    enum Kind { Invalid, Read, Write, Nmt, SetSdoTimeout, Lss, Help };
    // CiA 309-3 error codes used in the answers.
    enum ErrorCode { RequestNotSupported = 100, SyntaxError = 101, NotProcessed = 102, Timeout = 103,
                     UnsupportedNet = 106, UnsupportedNode = 107, LssFailed = 501, LssStoreFailed = 504,
                     OutOfMemory = 600 };

    Kind kind = Invalid;
    int sequence = -1; // -1: the line had none
    int node = -1;     // -1: none given
    quint16 index = 0;
    quint8 sub = 0;
    CAN::CANopenDataType type = CAN::UNSIGNED32;
    QStringList valuePieces; // a write's value, split as the line
    NMTNetwork::NmtCommands nmt = NMTNetwork::Start;
    quint32 number = 0;        // set sdo_timeout
    QString lssCommand;        // lss_...
    QList<quint32> lssArguments;
    int errorCode = 0;         // for Invalid
    QString errorText;

    static GatewayRequest parse(const QString& line);
    // "[7] " or "" without a sequence number.
    static QString prefix(int sequence);
    // "[7] ERROR:101 #Syntax error: ..."
    static QString error(int sequence, int code, const QString& text);
    static QString errorName(int code);
    // The sequence number a line begins with, -1 if none (also for lines
    // too long to be parsed).
    static int leadingSequence(const QByteArray& line);
};

#endif
