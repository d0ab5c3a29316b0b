#include "ctl/Delivery.h"

#include <iostream>

#include "ctl/Output.h"

namespace Ctl {

void PrintAccepted(const std::string& what, const Json::Value& answer) {
    PrintLine(what);
    FlushOutput();
    for (const Json::Value& note : Member(answer, "notes")) {
        std::cerr << "note: " << Escape(note.isString() ? note.asString() : "") << '\n';
    }
}

} // namespace Ctl
