#include "simconsole.h"
#include "simemcyproducer.h"
#include "simnmtslave.h"
#include "simtpdo.h"

#include <QSocketNotifier>
#include <QStringList>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {
// A number in hexadecimal, with or without 0x.
bool parseHex(const QString& text, uint max, uint& value)
{
    QString digits = text;
    if (digits.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        digits = digits.mid(2);
    bool ok = false;
    value = digits.toUInt(&ok, 16);
    return ok && !digits.isEmpty() && value <= max;
}
} // namespace

SimConsole::SimConsole(SimDevice* device, SimNmtSlave* nmt, SimEmcyProducer* emcy, SimTpdo* tpdo, QObject* parent)
    : QObject(parent)
    , mDevice(device)
    , mNmt(nmt)
    , mEmcy(emcy)
    , mTpdo(tpdo)
{
    // State changes come from the receive thread too (queued into ours then).
    qRegisterMetaType<SimDevice::NmtState>("SimDevice::NmtState");
    connect(device, &SimDevice::nmtStateChanged, this, &SimConsole::reportState);
}

QString SimConsole::helpText()
{
    return QStringLiteral(
        "Commands, one per line on stdin:\n"
        "  start | stop | preop       enter operational / stopped / pre-operational\n"
        "  reset | resetcomm          reset node / communication: boot-up again, then pre-operational\n"
        "  heartbeat MS               heartbeat producer time in ms (0: off)\n"
        "  emcy CODE [REG [B0..B4]]   send an emergency; hex numbers, e.g. \"emcy 1000 01\" or\n"
        "                             \"emcy 8110 11 01 02 03 04 05\" (not sent while stopped)\n"
        "  emcy clear                 send the error reset emergency (error code 0)\n"
        "  status                     node-ID, NMT state, heartbeat time, TPDO counter\n"
        "  help                       this list\n"
        "  quit                       end the program");
}

QString SimConsole::stateName(SimDevice::NmtState state)
{
    switch (state) {
    case SimDevice::Initialising:
        return QStringLiteral("initialising");
    case SimDevice::Stopped:
        return QStringLiteral("stopped");
    case SimDevice::Operational:
        return QStringLiteral("operational");
    case SimDevice::PreOperational:
        return QStringLiteral("pre-operational");
    }
    return QStringLiteral("unknown");
}

QString SimConsole::execute(const QString& line)
{
    const QStringList words = line.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (words.isEmpty())
        return QString();
    const QString cmd = words[0].toLower();
    const QString ok = QStringLiteral("ok");

    if (cmd == QLatin1String("start") || cmd == QLatin1String("stop") || cmd == QLatin1String("preop")
        || cmd == QLatin1String("reset") || cmd == QLatin1String("resetcomm")) {
        if (words.size() != 1)
            return QStringLiteral("error: %1 takes no argument").arg(cmd);
        const quint8 command = cmd == QLatin1String("start")  ? SimNmtSlave::Start
                               : cmd == QLatin1String("stop") ? SimNmtSlave::Stop
                               : cmd == QLatin1String("preop") ? SimNmtSlave::EnterPreOperational
                               : cmd == QLatin1String("reset") ? SimNmtSlave::ResetNode
                                                               : SimNmtSlave::ResetCommunication;
        mNmt->execute(command);
        return ok;
    }
    if (cmd == QLatin1String("heartbeat")) {
        bool valid = false;
        const uint ms = words.size() == 2 ? words[1].toUInt(&valid) : 0;
        if (!valid || ms > 65535)
            return QStringLiteral("error: usage: heartbeat MS (0..65535)");
        mDevice->setHeartbeatTime(quint16(ms));
        return ok;
    }
    if (cmd == QLatin1String("emcy")) {
        CAN::RetType result;
        if (words.size() == 2 && words[1].toLower() == QLatin1String("clear")) {
            result = mEmcy->clear();
        } else {
            uint code = 0, reg = 0;
            SimEmcyProducer::ManufacturerData data{};
            if (words.size() < 2 || words.size() > 8 || !parseHex(words[1], 0xFFFF, code))
                return QStringLiteral("error: usage: emcy CODE [REG [B0 B1 B2 B3 B4]] (hex) or emcy clear");
            if (words.size() >= 3 && !parseHex(words[2], 0xFF, reg))
                return QStringLiteral("error: bad error register '%1'").arg(words[2]);
            for (int i = 3; i < words.size(); ++i) {
                uint byte = 0;
                if (!parseHex(words[i], 0xFF, byte))
                    return QStringLiteral("error: bad manufacturer byte '%1'").arg(words[i]);
                data[size_t(i - 3)] = quint8(byte);
            }
            result = mEmcy->raise(quint16(code), quint8(reg), data);
        }
        if (result == CAN::NotReady)
            return QStringLiteral("error: no emergency while %1").arg(stateName(mDevice->nmtState()));
        if (result != CAN::Ok)
            return QStringLiteral("error: write failed (%1)").arg(int(result));
        return ok;
    }
    if (cmd == QLatin1String("status")) {
        return QStringLiteral("node %1, %2, heartbeat %3 ms, TPDO counter %4")
            .arg(mDevice->nodeId())
            .arg(stateName(mDevice->nmtState()))
            .arg(mDevice->heartbeatTime())
            .arg(mTpdo ? mTpdo->counter() : 0);
    }
    if (cmd == QLatin1String("help"))
        return helpText();
    if (cmd == QLatin1String("quit") || cmd == QLatin1String("exit")) {
        Q_EMIT quitRequested();
        return QStringLiteral("bye");
    }
    return QStringLiteral("error: unknown command '%1' (try help)").arg(words[0]);
}

void SimConsole::attachStdin()
{
    if (mNotifier)
        return;
    mEcho = true;
    // Reading the terminal from the background would stop the process;
    // ignored, the read fails instead and the console stops reading.
    std::signal(SIGTTIN, SIG_IGN);
    mNotifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
    connect(mNotifier, &QSocketNotifier::activated, this, &SimConsole::readStdin);
}

void SimConsole::readStdin()
{
    char buf[4096];
    const ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (n <= 0) { // end of input, or not readable: the device runs on
        mNotifier->setEnabled(false);
        return;
    }
    mPending.append(buf, int(n));
    int end;
    while ((end = mPending.indexOf('\n')) >= 0) {
        const QString line = QString::fromUtf8(mPending.left(end));
        mPending.remove(0, end + 1);
        const QString answer = execute(line);
        if (!answer.isEmpty())
            print(answer);
    }
}

void SimConsole::reportState(SimDevice::NmtState state)
{
    if (mEcho)
        print(QStringLiteral("NMT state: %1").arg(stateName(state)));
}

void SimConsole::print(const QString& text)
{
    std::fputs(text.toLocal8Bit().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}
