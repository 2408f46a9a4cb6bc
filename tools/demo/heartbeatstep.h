#ifndef HEARTBEATSTEP_H
#define HEARTBEATSTEP_H

#include "demostep.h"

// Registers the device's heartbeat CAN-ID with the scheduler and shows the
// boot-up and heartbeat frames arriving, decoded.
class HeartbeatStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
