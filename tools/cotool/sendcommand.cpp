#include "sendcommand.h"

#include "abstractcanadapter.h"
#include "framenotation.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QVector>
#include <memory>

SendCommand::SendCommand()
    : mGapOption({QStringLiteral("g"), QStringLiteral("gap")},
                 QStringLiteral("Pause between two frames, in ms (default 0)."), QStringLiteral("ms"))
{
}

void SendCommand::addOptions(QCommandLineParser& parser)
{
    parser.addOption(mGapOption);
    parser.addPositionalArgument(QStringLiteral("frames"),
                                 QStringLiteral("Frames: 123#DEADBEEF (11-bit), 12345678#11.22 (29-bit), "
                                                "123#R or 123#R4 (remote), 123##1AABBCC (CAN FD; the digit "
                                                "after ## is the flags nibble: 1 = BRS, 2 = ESI). A CAN FD "
                                                "frame must have 0..8, 12, 16, 20, 24, 32, 48 or 64 bytes."),
                                 QStringLiteral("FRAME..."));
}

int SendCommand::run(const QCommandLineParser& parser, const ToolOptions& options)
{
    int gap = 0;
    if (parser.isSet(mGapOption)) {
        bool ok = false;
        gap = parser.value(mGapOption).toInt(&ok);
        if (!ok || gap < 0)
            return usageError(QStringLiteral("--gap wants milliseconds >= 0, got '%1'").arg(parser.value(mGapOption)));
    }
    const QStringList texts = parser.positionalArguments();
    if (texts.isEmpty())
        return usageError(QStringLiteral("no frame given (e.g. cotool send 123#DEADBEEF)"));
    // All frames are checked before the first one goes out.
    QVector<CAN::CanMessage> frames;
    for (const QString& text : texts) {
        CAN::CanMessage frame;
        QString error;
        if (!FrameNotation::parse(text, frame, &error))
            return usageError(QStringLiteral("bad frame '%1': %2").arg(text, error));
        frames.append(frame);
    }

    QString error;
    std::unique_ptr<AbstractCanAdapter> adapter(options.createAdapter(&error));
    if (!adapter)
        return failure(error);
    const CAN::RetType opened = adapter->open();
    if (opened != CAN::Ok)
        return failure(ToolOptions::openError(adapter.get(), int(opened)));

    int result = Success;
    for (int i = 0; i < frames.size(); ++i) {
        CAN::CanMessage frame = frames[i];
        const CAN::RetType r = adapter->write(&frame);
        if (r != CAN::Ok) {
            result = failure(QStringLiteral("frame %1 (%2) was refused (error %3)").arg(i + 1).arg(texts[i]).arg(int(r)));
            break;
        }
        if (gap > 0 && i + 1 < frames.size() && !waitFor(gap))
            break;
    }
    // close() returns once the adapter's queue has drained: every frame
    // written above has left when we exit.
    adapter->close();
    return result;
}
