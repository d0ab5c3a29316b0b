#include "agent/framework/StopStep.h"

#include "sdk/RwLock.h"

namespace Framework {

namespace {

struct Step {
    SDK::RwLock lock;
    std::string text GUARDED_BY(lock);
};

// Never destroyed: it is asked when the process does not end.
Step& TheStep() {
    static Step* const step = new Step;
    return *step;
}

} // namespace

void NoteStopStep(const std::string& waitsFor) {
    Step& step = TheStep();
    const SDK::WriteGuard guard(step.lock);
    step.text = waitsFor;
}

std::string GetStopStep() {
    Step& step = TheStep();
    const SDK::ReadGuard guard(step.lock);
    return step.text;
}

} // namespace Framework
