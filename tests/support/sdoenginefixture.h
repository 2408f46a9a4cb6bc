#ifndef SDOENGINEFIXTURE_H
#define SDOENGINEFIXTURE_H

#include "canscheduler.h"
#include "qtwarningtrap.h"
#include "recordingcanadapter.h"
#include "scriptedresponder.h"
#include "scriptedsdoserver.h"

#include <QSignalSpy>
#include <QtTest>
#include <functional>
#include <type_traits>

// 1, 2, 3, ... n as bytes: a value whose every byte tells where it belongs.
inline QByteArray countingBytes(int n)
{
    QByteArray b(n, '\0');
    for (int i = 0; i < n; ++i)
        b[i] = char(i + 1);
    return b;
}

// The first argument of every emission a spy recorded, as integers
// (progress values, for example).
inline QList<int> firstArguments(const QSignalSpy& spy)
{
    QList<int> values;
    for (const QList<QVariant>& args : spy)
        values.append(args.at(0).toInt());
    return values;
}

// The arguments of a spy's emission i: index, sub-index and the value (taken
// out of the QVariant the signal carries) or the abort code.
inline QVariantList emitted(const QSignalSpy& spy, int i = 0)
{
    QVariantList args = spy.value(i);
    if (args.size() == 3 && args.at(2).userType() == QMetaType::QVariant)
        args[2] = args.at(2).value<QVariant>();
    return args;
}

// An abort frame to node 5 in frameHex() form, written out byte by byte.
inline QByteArray abortHex(quint16 idx, quint8 sub, quint32 code)
{
    const char b[8] = {char(0x80), char(idx), char(idx >> 8), char(sub),
                       char(code), char(code >> 8), char(code >> 16), char(code >> 24)};
    return "605:" + QByteArray(b, 8).toHex();
}

// Shared set-up of the SDO client unit tests (engines, facade, USDO and
// gateway clients): a recording adapter (a gateway if asked), a connected
// scheduler, the client for node 5 (answers on 0x585, requests on 0x605, or
// as `make` builds it), spies on its outcome signals and a scripted SDO
// server that answers the adapter's frames when the test lets the responder
// serve. A test class derives from it next to QObject and calls setUp() in
// init() and tearDown() in cleanup(); tearDown() fails the test if Qt warned
// about thread misuse.
template<typename Engine>
class SdoEngineFixture
{
public:
    static constexpr quint32 Rx = 0x585;
    static constexpr quint32 Tx = 0x605;

protected:
    RecordingCanAdapter* adapter = nullptr;
    CanScheduler* scheduler = nullptr;
    Engine* engine = nullptr;
    QSignalSpy* results = nullptr;
    QSignalSpy* errors = nullptr;
    QSignalSpy* progress = nullptr; // only for engines that report progress
    ScriptedSdoServer server;
    ScriptedResponder* responder = nullptr;

    void setUp(const std::function<Engine*(CanScheduler*)>& make = nullptr, bool gateway = false)
    {
        adapter = new RecordingCanAdapter;
        if (gateway)
            adapter->setOptionAnswer(AbstractCanAdapter::CiA309Gateway, true);
        scheduler = new CanScheduler(adapter);
        scheduler->connectToAdapter(true);
        if constexpr (NodeConstructible<Engine>::value)
            engine = make ? make(scheduler) : new Engine(Rx, Tx, scheduler);
        else
            engine = make(scheduler);
        server = ScriptedSdoServer();
        responder = new ScriptedResponder(adapter, Rx, [this](const CAN::CanMessage& m) { return server.answer(m); });
        results = new QSignalSpy(engine, &Engine::resultReceived);
        errors = new QSignalSpy(engine, &Engine::errorReceived);
        if constexpr (HasProgress<Engine>::value)
            progress = new QSignalSpy(engine, &Engine::progress);
    }

    void tearDown()
    {
        delete responder; // stops its thread first
        delete results;
        delete errors;
        delete progress;
        progress = nullptr;
        delete engine;
        delete scheduler;
        delete adapter;
        const QStringList warnings = QtWarningTrap::take();
        QVERIFY2(warnings.isEmpty(), qPrintable(warnings.join('\n')));
    }

    // Values the engine gave adapter option 26 (transfer active), in order.
    QVariantList option26() const { return adapter->optionHistory(AbstractCanAdapter::SdoTransferActive); }
    bool ended() const { return results->count() + errors->count() > 0; }

private:
    // Built from (rx COB-ID, tx COB-ID, scheduler) without narrowing.
    template<typename T, typename = void>
    struct NodeConstructible : std::false_type {};
    template<typename T>
    struct NodeConstructible<T, std::void_t<decltype(new T{std::declval<quint32>(), std::declval<quint32>(),
                                                            std::declval<CanScheduler*>()})>> : std::true_type {};
    template<typename T, typename = void>
    struct HasProgress : std::false_type {};
    template<typename T>
    struct HasProgress<T, std::void_t<decltype(&T::progress)>> : std::true_type {};
};

#endif
