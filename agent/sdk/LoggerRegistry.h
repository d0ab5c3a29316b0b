#pragma once

namespace SDK {

// Leads all loggers that LoggerUtils has handed out to the root logger's channel again, whatever
// channel they were given since.
void AttachLoggersToRoot();

} // namespace SDK
