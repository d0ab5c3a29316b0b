#pragma once

#include <string>

#include "ctl/policy/PolicyKeys.h"

namespace Ctl {

// A policy to begin with, for global or directory mode: it learns, then waits, and blocks nothing.
// Every key that the mode reads is there, with a comment on what it does; ReadPolicy takes them out.
std::string MakePolicyTemplate(PolicyMode mode);

// The text broken into lines of at most `width` bytes where words are no longer than that.
std::vector<std::string> WrapText(const std::string& text, std::size_t width);

} // namespace Ctl
