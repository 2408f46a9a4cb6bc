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

    // Creates the adapter from the options and connects a scheduler to it,
    // without opening it: services registered now see every frame from the
    // moment the adapter listens. False with *error when there is no such
    // adapter.
    bool create(const ToolOptions& options, QString* error);
    // Opens the adapter (creating it first if need be); false with *error.
    bool open(const ToolOptions& options, QString* error);

    AbstractCanAdapter* adapter() const { return mAdapter.get(); }
    CanScheduler* scheduler() const { return mScheduler.get(); }
    bool isGateway() const;

private:
    std::unique_ptr<AbstractCanAdapter> mAdapter;
    std::unique_ptr<CanScheduler> mScheduler;
    bool mOpen = false;
};

#endif
