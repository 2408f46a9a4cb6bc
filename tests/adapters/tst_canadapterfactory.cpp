#include "canadapterfactory.h"
#include "democanadapter.h"
#include "pcanadvancedadapter.h"
#include "socketcaninterfaces.h"

#include <QTemporaryDir>
#include <QtTest>

using F = CanAdapterFactory;

class tst_CanAdapterFactory : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // The virtual bus (6), the gateway (20) and the makers' SocketCAN adapters
    // (5, 9, 11, 16, 17) have a class in this build.
    void createsOnlyTypesWithAClass()
    {
        QList<int> created;
        for (int t = 0; t <= 255; ++t) {
            QScopedPointer<AbstractCanAdapter> a(F::createCanAdapter(F::CanAdapterType(t), QStringLiteral("x")));
            if (a)
                created << t;
            if (t == F::CiA309)
                QVERIFY(a->getCanAdapterOption(AbstractCanAdapter::CiA309Gateway).toBool());
            if (t == F::Virtual)
                QVERIFY(qobject_cast<DemoCanAdapter*>(a.data()));
        }
        QCOMPARE(created, QList<int>({5, 6, 9, 11, 16, 17, 20}));
        QList<int> types;
        for (const auto& p : F::getImplementedAdapters())
            types << int(p.second);
        QCOMPARE(types, QList<int>({17, 9, 16, 7, 8, 10, 5, 11, 13, 20, 15, 6}));
    }

    void bitrateLists_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<bool>("fd");
        QTest::addColumn<QString>("expected");
        QTest::newRow("5") << 5 << true << "10 kbit/s=10,20 kbit/s=20,50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,1000 kbit/s=1000";
        QTest::newRow("6 fd") << 6 << true << "500 kbit/s=500,1 Mbit/s=1000";
        QTest::newRow("6") << 6 << false << "50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,1 Mbit/s=1000";
        QTest::newRow("7") << 7 << true << "10 kbit/s=10,20 kbit/s=20,50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,800 kbit/s=800,1000 kbit/s=1000";
        QTest::newRow("8") << 8 << false << "1000 kbit/s=1000";
        QTest::newRow("9 fd") << 9 << true << "500 kbit/s=500,1 Mbit/s=1000";
        QTest::newRow("9") << 9 << false << "50 kbit/s=50,62 kbit/s=62,83 kbit/s=83,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,1 Mbit/s=1000";
        QTest::newRow("10 fd") << 10 << true << "500 kbit/s=500,800 kbit/s=800,1 Mbit/s=1000";
        QTest::newRow("10") << 10 << false << "10 kbit/s=10,50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,800 kbit/s=800,1 Mbit/s=1000";
        QTest::newRow("11") << 11 << true << "10 kbit/s=10,20 kbit/s=20,50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,1000 kbit/s=1000";
        QTest::newRow("12") << 12 << true << "";
        QTest::newRow("13") << 13 << false << "10 kbit/s=10,20 kbit/s=20,50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,1000 kbit/s=1000";
        QTest::newRow("15") << 15 << true << "10 kbit/s=10,20 kbit/s=20,50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,1000 kbit/s=1000";
        QTest::newRow("16 fd") << 16 << true << "250 kbit/s=250,500 kbit/s=500,1 Mbit/s=1000";
        QTest::newRow("16") << 16 << false << "10 kbit/s=10,20 kbit/s=20,50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,1000 kbit/s=1000";
        QTest::newRow("17 fd") << 17 << true << "500 kbit/s=500,1 Mbit/s=1000";
        QTest::newRow("17") << 17 << false << "10 kbit/s=10,50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,800 kbit/s=800,1 Mbit/s=1000";
        QTest::newRow("20") << 20 << true << "-=0,50 kbit/s=50,125 kbit/s=125,250 kbit/s=250,500 kbit/s=500,1 Mbit/s=1000";
        QTest::newRow("21") << 21 << false << "";
    }
    void bitrateLists()
    {
        QFETCH(int, type);
        QFETCH(bool, fd);
        QFETCH(QString, expected);
        QCOMPARE(join(F::getSupportedBaudrates(F::CanAdapterType(type), fd)), expected);
    }

    void fdDataRateLists_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("expected");
        QTest::newRow("6") << 6 << "500 kbit/s=500,1 Mbit/s=1000,2 Mbit/s=2000,4 Mbit/s=4000,8 Mbit/s=8000";
        QTest::newRow("9") << 9 << "500 kbit/s=500,1 Mbit/s=1000,2 Mbit/s=2000,4 Mbit/s=4000,8 Mbit/s=8000";
        QTest::newRow("10") << 10 << "1 Mbit/s=1000,2 Mbit/s=2000,4 Mbit/s=4000,5 Mbit/s=5000,8 Mbit/s=8000";
        QTest::newRow("16") << 16 << "2 Mbit/s=2000,4 Mbit/s=4000,8 Mbit/s=8000,10 Mbit/s=10000";
        QTest::newRow("17") << 17 << "500 kbit/s=500,1 Mbit/s=1000,2 Mbit/s=2000,4 Mbit/s=4000";
        QTest::newRow("5") << 5 << "";
        QTest::newRow("20") << 20 << "";
    }
    void fdDataRateLists()
    {
        QFETCH(int, type);
        QFETCH(QString, expected);
        QCOMPARE(join(F::getSupportedFDBaudrates(F::CanAdapterType(type))), expected);
    }

    void yesNoQueries()
    {
        QList<int> changeable, additional;
        for (int t = 0; t <= 25; ++t) {
            if (F::isBaudrateChangeable(F::CanAdapterType(t)))
                changeable << t;
            if (F::isAdditionalConfigAvailable(F::CanAdapterType(t)))
                additional << t;
            QCOMPARE(F::canDisableAutoBusOn(F::CanAdapterType(t), QString()), t == 17);
        }
        QCOMPARE(changeable, QList<int>({5, 6, 7, 9, 10, 11, 13, 15, 16, 17, 20}));
        QCOMPARE(additional, QList<int>({2, 7, 8, 11, 13, 15, 16, 20}));
    }

    void interfaceQueries_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("fd");
        QTest::addColumn<bool>("lowSpeed");
        QTest::newRow("virtual empty") << 6 << "" << true << false;
        QTest::newRow("vector fd") << 10 << "VN1630 CAN-FD 1" << true << false;
        QTest::newRow("vector case") << 10 << "VN1630 can-fd 1" << false << false;
        QTest::newRow("ixxat fd") << 17 << "USB-to-CAN CAN-FD" << true << false;
        QTest::newRow("ixxat ls") << 17 << "USB-to-CAN LS" << false << true;
        QTest::newRow("vector LS is no low speed") << 10 << "LS" << false << false;
        QTest::newRow("below 6") << 5 << "CAN-FD" << false << false;
        QTest::newRow("above 17") << 20 << "CAN-FD" << false << false;
        QTest::newRow("kvaser without driver") << 9 << "Kvaser Leaf" << false << false;
        QTest::newRow("pcan without driver") << 16 << "PCAN net 3" << false << false;
        QTest::newRow("janz") << 11 << "CAN-FD" << false << false;
    }
    void interfaceQueries()
    {
        QFETCH(int, type);
        QFETCH(QString, name);
        QFETCH(bool, fd);
        QFETCH(bool, lowSpeed);
        QCOMPARE(F::isInterfaceFd(F::CanAdapterType(type), name), fd);
        QCOMPARE(F::isInterfaceLowSpeed(F::CanAdapterType(type), name), lowSpeed);
    }

    // The makers' interfaces come from sysfs, by kernel driver; FD from the MTU.
    void makersInterfacesFromSysfs()
    {
        QTemporaryDir sys;
        const auto netif = [&](const char* name, int type, int mtu, int index, const char* driver) {
            const QString dir = sys.filePath(QStringLiteral("class/net/") + name);
            QDir().mkpath(dir + "/device");
            const auto put = [&](const char* file, int v) {
                QFile f(dir + '/' + file);
                f.open(QIODevice::WriteOnly);
                f.write(QByteArray::number(v) + '\n');
            };
            put("type", type);
            put("mtu", mtu);
            put("ifindex", index);
            if (driver) {
                const QString target = sys.filePath(QStringLiteral("bus/drivers/") + driver);
                QDir().mkpath(target);
                QFile::link(target, dir + "/device/driver");
            }
        };
        netif("can0", 280, 72, 3, "kvaser_usb");
        netif("can1", 280, 16, 4, "peak_usb");
        netif("can2", 280, 72, 5, "ixxat_usb");
        netif("can3", 280, 16, 6, "gs_usb");
        netif("eth0", 1, 1500, 2, "e1000");
        SocketCanInterfaces::setRoot(sys.path());
        QCOMPARE(F::getInterfaceList(F::Kvaser), QStringList{"can0"});
        QCOMPARE(F::getInterfaceList(F::PcanAdvanced), QStringList{"can1 net 4"});
        QCOMPARE(F::getInterfaceList(F::IxxatVci), QStringList{"can2 CAN-FD"});
        QCOMPARE(F::getInterfaceList(F::EmsCpc), QStringList{});
        QCOMPARE(SocketCanInterfaces::all().size(), 4); // gs_usb too, eth0 not
        QVERIFY(F::isInterfaceFd(F::Kvaser, "can0"));
        QVERIFY(!F::isInterfaceFd(F::PcanAdvanced, "can1 net 4"));
        QVERIFY(F::isInterfaceFd(F::IxxatVci, "can2 CAN-FD"));
        QScopedPointer<AbstractCanAdapter> a(F::createCanAdapter(F::PcanAdvanced, "can1 net 4"));
        auto* pcan = qobject_cast<PCANAdvancedAdapter*>(a.data());
        QVERIFY(pcan);
        QCOMPARE(pcan->plugin(), QString("socketcan"));
        QCOMPARE(pcan->interfaceName(), QString("can1"));
        SocketCanInterfaces::setRoot(QString());
    }

    void pcanNetNumber_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("net");
        QTest::newRow("last part 3") << "PCAN-USB FD net 3" << 3;
        QTest::newRow("trailing blank") << "PCAN 3 " << 0;
        QTest::newRow("low 8 bits") << "net 259" << 3;
    }
    void pcanNetNumber()
    {
        QFETCH(QString, name);
        QFETCH(int, net);
        QCOMPARE(int(F::pcanNetFromInterfaceName(name)), net);
    }

private:
    static QString join(const F::BitrateList& list)
    {
        QStringList parts;
        for (const auto& p : list)
            parts << QStringLiteral("%1=%2").arg(p.first).arg(p.second);
        return parts.join(QLatin1Char(','));
    }
};

QTEST_MAIN(tst_CanAdapterFactory)
#include "tst_canadapterfactory.moc"
