#ifndef DEMOSTEP_H
#define DEMOSTEP_H

#include <QString>

class DemoContext;

// One step of the demo: a title, then run() explains and shows one thing.
// Steps run in order on the main thread and share what they set up through
// the DemoContext. A new feature of the library gets a new step.
class DemoStep
{
public:
    virtual ~DemoStep() = default;
    virtual QString title() const = 0;
    // False stops the demo (the step said why).
    virtual bool run(DemoContext& context) = 0;
};

#endif
