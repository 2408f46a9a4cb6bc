#ifndef SDOSTEP_H
#define SDOSTEP_H

#include "demostep.h"

// The three SDO transfer engines against the device's object dictionary:
// expedited reads and writes, a segmented string, 64 KiB by block transfer
// both ways, and an abort from the device.
class SdoStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
