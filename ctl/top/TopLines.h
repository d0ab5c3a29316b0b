#pragma once

#include <string>

#include "ctl/top/TopSampler.h"

namespace Ctl::Top {

// With one decimal; "-" for what is not known.
std::string FormatDecimal(std::optional<double> number);

// "12.0"; "-" for a rate that is not known yet.
std::string FormatRate(const std::optional<Rates>& rates, double Rates::*kind);

// The view as one line of KEY=VALUE, the texts of strangers in quotes; one line that says why when the
// daemon is away.
std::string FormatLine(const View& view);

} // namespace Ctl::Top
