#include "ctl/preset/Verification.h"

#include <cerrno>
#include <cstring>
#include <unordered_set>

#include "ctl/preset/ExecutableFile.h"
#include "ctl/preset/Parallel.h"
#include "ctl/preset/ProgressBar.h"

namespace Ctl::Preset {

namespace {

Finding Compare(const HostRoot& host, const Entry& entry) {
    Finding finding{Finding::UNREADABLE, entry.filename, entry.sha256};
    if (!entry.filename.starts_with("/")) {
        finding.reason = "no absolute path";
        return finding;
    }
    const int error = DigestProgram(host.Locate(entry.filename), finding.found);
    if (error == 0) {
        finding.state = finding.found == entry.sha256 ? Finding::OK : Finding::CHANGED;
    } else if (error == ENOENT || error == ENOTDIR) {
        finding.state = Finding::MISSING;
    } else {
        finding.reason = std::strerror(error);
    }
    return finding;
}

} // namespace

const char* NameOf(Finding::State state) {
    switch (state) {
    case Finding::OK:
        return "ok";
    case Finding::CHANGED:
        return "changed";
    case Finding::MISSING:
        return "missing";
    case Finding::UNREADABLE:
        return "unreadable";
    case Finding::NEW:
        return "new";
    }
    return "";
}

std::vector<Finding> CompareWithDisk(const HostRoot& host, const std::vector<Entry>& entries, unsigned threads) {
    std::vector<Finding> findings(entries.size());
    ProgressBar progress("entries", entries.size(), {"entries", 1});
    ForEach(
        entries.size(), threads,
        [&](std::size_t i) {
            findings[i] = Compare(host, entries[i]);
            progress.Advance(1);
        },
        [&] { progress.Draw(); });
    return findings;
}

std::vector<Finding> FindNew(const Survey& survey, const std::vector<Entry>& entries) {
    std::unordered_set<std::string> digests;
    std::unordered_set<std::string> paths;
    for (const Entry& entry : entries) {
        digests.insert(entry.sha256);
        paths.insert(entry.filename);
    }
    std::vector<Finding> findings;
    for (const Survey::Executable& executable : survey.executables) {
        if (!digests.contains(executable.sha256) && !paths.contains(executable.path)) {
            findings.push_back({Finding::NEW, executable.path, "", executable.sha256, ""});
        }
    }
    return findings;
}

} // namespace Ctl::Preset
