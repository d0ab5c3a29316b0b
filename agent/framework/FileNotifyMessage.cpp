#include "modules/FileNotifyMessage.h"

#include "framework/Counters.h"

namespace Engine {

void FileNotifyMessage::DeliverTo(AbstractMessageReceiver& receiver) const {
    static Framework::Counter& judged = Framework::Counters::Of("files.judged");
    receiver.FileNotifyMessageAction(this);
    judged.Add();
}

} // namespace Engine
