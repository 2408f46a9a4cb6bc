#ifndef TOOLBUS_H
#define TOOLBUS_H

#include <QString>
#include <memory>

class AbstractCanAdapter;
class CanScheduler;
class ToolOptions;

// The opened adapter of a command with a scheduler on it, for commands that
// use the library's services. Declare the services after the bus: they go
// first, then the bus closes the adapter and deletes scheduler and adapter.
class ToolBus
{
public:
    ToolBus();
    ~ToolBus();

    // Creates the adapter from the options, opens it and connects a
    // scheduler; false with *error when that fails.
    bool open(const ToolOptions& options, QString* error);

    AbstractCanAdapter* adapter() const { return mAdapter.get(); }
    CanScheduler* scheduler() const { return mScheduler.get(); }
    bool isGateway() const;

private:
    std::unique_ptr<AbstractCanAdapter> mAdapter;
    std::unique_ptr<CanScheduler> mScheduler;
};

#endif
