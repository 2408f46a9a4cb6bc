#ifndef LSSSTEP_H
#define LSSSTEP_H

#include "demostep.h"

// LSS: three devices without node-ID are found by fast scan one after the
// other, given node-IDs 10, 11, 12 and stored, then boot; a classical scan
// over a small serial-number range finds them again.
class LssStep : public DemoStep
{
public:
    QString title() const override;
    bool run(DemoContext& context) override;
};

#endif
