#ifndef PDOSTEP_H
#define PDOSTEP_H

#include "demostep.h"

// SYNCProducer sends SYNC; the device answers each with its TPDO, which RPDO
// decodes by a mapping.
class PdoStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
