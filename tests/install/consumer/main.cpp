// Uses the installed library through its umbrella header only.
#include <canopenmaster.h>

#include <QCoreApplication>
#include <QScopedPointer>
#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    CanopenMaster master;
    if (CanopenMaster::getSizeOfCanStruct() != 92)
        return 1;
    QScopedPointer<AbstractCanAdapter> adapter(
        CanAdapterFactory::createCanAdapter(CanAdapterFactory::Virtual, QStringLiteral("Talvik Virtual")));
    if (!adapter || adapter->getCanAdapterOption(AbstractCanAdapter::CiA309Gateway).toBool())
        return 1;
    CanScheduler scheduler(adapter.data());
    CanSender* sender = scheduler.registerCanId(0x181);
    scheduler.unregisterCan(sender);
    std::puts("consumer built with find_package(CanopenMaster) runs");
    return 0;
}
