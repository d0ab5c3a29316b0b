#include "ctl/policy/PolicyText.h"

#include "ctl/Document.h"

namespace Ctl {

std::string StripComments(const std::string& text) {
    std::string stripped;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!inString && text.compare(i, 2, "//") == 0) {
            i = text.find('\n', i);
            if (i == std::string::npos) {
                break;
            }
        } else if (inString && text[i] == '\\' && i + 1 < text.size()) {
            stripped += text[i++];
        } else if (text[i] == '"') {
            inString = !inString;
        } else if (text[i] == '\n') {
            // No string goes on in the next line.
            inString = false;
        }
        stripped += text[i];
    }
    return stripped;
}

std::string ReadPolicy(const std::string& file) {
    return StripComments(ReadDocument(file));
}

} // namespace Ctl
