#ifndef EMCYSTEP_H
#define EMCYSTEP_H

#include "demostep.h"

// An emergency raised on the device, decoded by EMCYConsumer.
class EmcyStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
