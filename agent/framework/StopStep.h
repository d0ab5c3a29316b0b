#pragma once

#include <string>

namespace Framework {

// What the end of tasks and modules is waiting for just now, for whoever watches that it comes to an end:
// "task [x] to end". Empty at first. Thread-safe.
void NoteStopStep(const std::string& waitsFor);
std::string GetStopStep();

} // namespace Framework
