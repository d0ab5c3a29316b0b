#pragma once

#include <cstddef>
#include <functional>

namespace Ctl::Preset {

// Calls work(0) … work(count - 1), each once and in about that order, on `threads` threads (at least
// one), and meanwhile `look` on the calling one, about ten times a second and once at the end. Returns
// when all are done. Throws what `work` threw first, and Failure when the program is interrupted; what
// has not begun by then is left undone.
void ForEach(std::size_t count, unsigned threads, const std::function<void(std::size_t)>& work,
             const std::function<void()>& look);

// Throws Failure when the program has been interrupted (ctl/Interrupts.h).
void ThrowIfInterrupted();

} // namespace Ctl::Preset
