#ifndef NMTSTEP_H
#define NMTSTEP_H

#include "demostep.h"

// Resets, starts and stops the device with NMTSlave's commands and shows the
// state changes NMTSlave reports from the device's heartbeat.
class NmtStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
