#ifndef LSSCOMMAND_H
#define LSSCOMMAND_H

#include "command.h"
#include "lssmaster.h"

#include <QCommandLineOption>
#include <QVariant>
#include <functional>

// cotool lss ACTION [arguments]: layer setting services (LSSMaster).
//   scan                   fast scan until no unconfigured device answers;
//                          each one found gets the next free node-ID, stored
//   classical V P [RL RH SL SH]   identify the devices of vendor V, product P
//                          (revision and serial ranges; full ranges if none)
//   switch global waiting|config, switch selective V P R S
//   set-node ID, bitrate INDEX [--table T] [--activate DELAY], store,
//   inquire (node-ID), identify (count unconfigured devices)
// Through a gateway (--gateway) the gateway's LSS commands are used; it
// offers neither fast scan nor the node-ID inquiry's value.
class LssCommand : public Command
{
public:
    LssCommand();

    QString name() const override { return QStringLiteral("lss"); }
    QString summary() const override
    {
        return QStringLiteral("LSS: find unconfigured devices (scan, classical), switch, set-node, bitrate, store, "
                              "inquire, identify.");
    }
    bool acceptsGateway() const override { return true; }
    void addOptions(QCommandLineParser& parser) override;
    int run(const QCommandLineParser& parser, const ToolOptions& options) override;

    // Default scan step: an LSS slave on the virtual bus answers well within
    // it, also on a busy machine (at 5 ms a loaded machine loses answers now and then).
    static constexpr int DefaultStepMs = 10;
    static constexpr int DefaultAnswerMs = 1000;

private:
    struct Outcome {
        bool arrived = false;
        LSSMaster::LssResult result = LSSMaster::LssTimeout;
        QVariant value;
    };
    // Starts a request and waits for its lssResult (on a gateway the return
    // code is the outcome). Returns the exit code on failure, -1 on success.
    int request(const QString& what, LSSMaster::LssAction action, const std::function<CAN::RetType()>& start,
                Outcome* outcome = nullptr);
    int scan(const QCommandLineParser& parser);
    int classical(const QStringList& args);
    int switchMode(const QStringList& args);
    int simple(const QString& action, const QStringList& args, const QCommandLineParser& parser);
    // Shows a progress line on a terminal while the event loop runs.
    void progress(const QString& text) const;
    void endProgress() const;

    static QString identityText(quint32 vendor, quint32 product, quint32 revision, quint32 serial);
    static bool parseNumber(const QString& text, quint32& value);

    QCommandLineOption mStepOption;
    QCommandLineOption mStartOption;
    QCommandLineOption mNoStoreOption;
    QCommandLineOption mTableOption;
    QCommandLineOption mActivateOption;
    QCommandLineOption mTimeoutOption;
    LSSMaster* mMaster = nullptr;
    bool mGateway = false;
    bool mTerminal = false;
    int mAnswerMs = DefaultAnswerMs;
    QList<Outcome> mOutcomes; // results of the running request, in order
    LSSMaster::LssAction mAwaited = LSSMaster::LssNoAction;
};

#endif
