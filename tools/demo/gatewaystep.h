#ifndef GATEWAYSTEP_H
#define GATEWAYSTEP_H

#include "demostep.h"

// The same device through a CiA 309-3 gateway: cogateway (started by
// scripts/demo.sh) carries the text lines of the library's gateway adapter
// out on the virtual bus; SDOClient reads what it read over CAN.
class GatewayStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
