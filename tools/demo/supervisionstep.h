#ifndef SUPERVISIONSTEP_H
#define SUPERVISIONSTEP_H

#include "demostep.h"

// Heartbeat supervision by NMTSlave: the device's heartbeat is switched off
// (Lost) and on again (Running) through its console.
class SupervisionStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
