#ifndef OPENBUSSTEP_H
#define OPENBUSSTEP_H

#include "demostep.h"

// Creates the virtual adapter through the factory, opens it, puts a
// CanScheduler on it, and opens a second adapter through the C interface.
class OpenBusStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
