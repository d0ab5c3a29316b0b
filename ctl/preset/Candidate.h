#pragma once

#include <string>

namespace Ctl::Preset {

// A file that may turn out to be an executable, before anybody has looked at it.
struct Candidate {
    std::string path;   // on the host, links in its folders resolved
    std::string origin; // "PACKAGE VERSION"; empty when no package owns it
    std::string md5;    // of a conffile, as its package brought it; empty for other files
};

// Something about one file that the operator should know of.
struct Remark {
    std::string path;
    std::string text;
};

} // namespace Ctl::Preset
