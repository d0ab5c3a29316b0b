#include "ctl/Delivery.h"

#include <iostream>

#include "ctl/Output.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

void PrintAccepted(const char* what, const Json::Value& answer) {
    PrintLine(what);
    FlushOutput();
    Json::Value notes;
    if (SDK::JsonUtils::GetSubobjectValue(answer, "notes", notes)) {
        for (const Json::Value& note : notes) {
            std::cerr << "note: " << Escape(note.isString() ? note.asString() : "") << '\n';
        }
    }
}

} // namespace Ctl
