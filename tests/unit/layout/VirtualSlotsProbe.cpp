// Never run: compiled so that the compiler writes down the virtual tables of these classes, which
// VirtualSlotsTest reads.

#include "framework/Callback.h"
#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "framework/Task.h"
#include "modules/AbstractMessageReceiver.h"

#include "FullProcTask.h"
#include "LearnStatusCheckTask.h"
#include "ProcessManagerTask.h"
#include "SpecifiedFileAudit.h"
#include "SpecifiedFileAuditTask.h"
#include "WhitelistModule.h"
#include "WhitelistPolicy.h"

template class SDK::LocklessQueue<std::shared_ptr<Framework::Message>>;
template class Framework::TaskletCallback<Engine::WhitelistModule>;
template class Framework::PolicyCallback<Engine::WhitelistModule>;
