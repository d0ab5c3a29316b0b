#include "ctl/Client.h"
#include "ctl/Output.h"
#include "ctl/Verbs.h"

namespace Ctl {

namespace {

// As it is, because the format has its own escapes; the daemon lets no control character into it.
void ShowMetrics(const Context& context) {
    PrintText(Client(context.root).GetText("/metrics"));
    FlushOutput();
}

} // namespace

void AddMetricsVerb(CLI::App& app, const Context& context) {
    CLI::App* verb = app.add_subcommand("metrics", "Print the metrics in the Prometheus text format");
    verb->callback([&context] { ShowMetrics(context); });
}

} // namespace Ctl
