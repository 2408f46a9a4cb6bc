#include "toolbus.h"

#include "abstractcanadapter.h"
#include "canscheduler.h"
#include "tooloptions.h"

ToolBus::ToolBus() = default;

ToolBus::~ToolBus()
{
    if (mOpen)
        mAdapter->close(); // a virtual adapter drains its queue first
    mScheduler.reset();
    mAdapter.reset();
}

bool ToolBus::create(const ToolOptions& options, QString* error)
{
    mAdapter.reset(options.createAdapter(error));
    if (!mAdapter)
        return false;
    mScheduler.reset(new CanScheduler(mAdapter.get()));
    mScheduler->connectToAdapter(true);
    return true;
}

bool ToolBus::open(const ToolOptions& options, QString* error)
{
    if (!mAdapter && !create(options, error))
        return false;
    const CAN::RetType opened = mAdapter->open();
    if (opened != CAN::Ok) {
        *error = options.hasGateway()
                     ? QStringLiteral("could not connect to the gateway at %1:%2 (error %3)")
                           .arg(options.gatewayHost()).arg(options.gatewayPort()).arg(int(opened))
                     : ToolOptions::openError(mAdapter.get(), int(opened));
        return false;
    }
    mOpen = true;
    return true;
}

bool ToolBus::isGateway() const
{
    return mAdapter && mAdapter->getCanAdapterOption(AbstractCanAdapter::CiA309Gateway).toBool();
}
