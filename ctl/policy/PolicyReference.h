#pragma once

#include <string>

namespace Ctl {

// The table of keys as the documentation prints it: rows of Markdown, and entries of a man page.
std::string MakeMarkdownReference();
std::string MakeManReference();

} // namespace Ctl
