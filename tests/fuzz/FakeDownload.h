#pragma once

#include <string>
#include <vector>

namespace Fuzz {

// Stands in for SDK::HttpUtils::Download in a program that is linked to FakeDownload.cpp: nothing is fetched
// from anywhere, whatever URL the fuzzer comes up with. "serve:TEXT" succeeds and leaves TEXT in the
// destination, whose digest is not looked at; everything else fails.
struct Download {
    std::string url;
    std::string sha256;
    std::string destination;
};

inline const std::string SERVE = "serve:";

// The downloads that were asked for since this was last called.
std::vector<Download> TakeDownloads();

} // namespace Fuzz
