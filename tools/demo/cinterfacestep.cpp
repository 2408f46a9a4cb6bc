#include "cinterfacestep.h"

#include "canopenmaster_c.h"
#include "democontext.h"

#include <cstring>

QString CInterfaceStep::title() const
{
    return QStringLiteral("the C interface received the same frames");
}

bool CInterfaceStep::run(DemoContext& c)
{
    c.say(QStringLiteral("  Meanwhile the C handle queued every frame of the bus. ca_recv() takes the\n"
                         "  oldest (14-byte CaFrame: identifier and 8 data bytes) and returns how many\n"
                         "  were waiting:\n"));
    const quint32 cobId = 0x700u + c.nodeId;
    int matched = 0;
    int index = 0;
    CaFrame frame;
    std::memset(&frame, 0, sizeof frame);
    for (;;) {
        const int32_t waiting = ca_recv(c.cHandle, &frame);
        if (waiting < 1)
            break;
        QString line = QStringLiteral("    ca_recv = %1  id 0x%2  data[0] %3")
                           .arg(waiting, 2)
                           .arg(QString::number(frame.id, 16).toUpper())
                           .arg(QStringLiteral("%1").arg(frame.data[0], 2, 16, QLatin1Char('0')).toUpper());
        if (frame.id == cobId && index < c.heartbeats.size()) {
            const CAN::CanMessage& m = c.heartbeats.at(index).message;
            const bool same = m.id == frame.id && std::memcmp(m.data, frame.data, 8) == 0;
            line += same ? QStringLiteral("  = C++ frame %1").arg(index + 1)
                         : QStringLiteral("  differs from C++ frame %1").arg(index + 1);
            matched += same ? 1 : 0;
            ++index;
        }
        c.say(line);
    }
    c.say(QStringLiteral("\n  %1 of the %2 frames seen by the C++ interface came through the C interface\n"
                         "  identically%3.")
              .arg(matched)
              .arg(c.heartbeats.size())
              .arg(matched < c.heartbeats.size() ? QStringLiteral(" (later ones may still be on their way)")
                                                 : QString()));
    return matched > 0;
}
