#ifndef CINTERFACESTEP_H
#define CINTERFACESTEP_H

#include "demostep.h"

// Drains the C interface's receive queue and compares its frames with those
// the C++ interface delivered.
class CInterfaceStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
