#include "ctl/Verbs.h"
namespace Ctl {
void AddTopVerb(CLI::App&, const Context&) {}
} // namespace Ctl
