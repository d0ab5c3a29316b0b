#include "ctl/preset/TreeWalk.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include <fts.h>
#include <sys/stat.h>

#include "ctl/Failure.h"
#include "ctl/preset/Parallel.h"

namespace Ctl::Preset {

namespace {

using Walk = std::unique_ptr<FTS, decltype(&fts_close)>;

Walk Begin(std::string& directory) {
    std::array<char*, 2> starts = {directory.data(), nullptr};
    return {fts_open(starts.data(), FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, nullptr), &fts_close};
}

bool IsUnreadable(const FTSENT& entry) {
    return entry.fts_info == FTS_DNR || entry.fts_info == FTS_ERR || entry.fts_info == FTS_NS;
}

bool MayBeExecuted(const FTSENT& entry) {
    return entry.fts_info == FTS_F && (entry.fts_statp->st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
}

} // namespace

std::vector<Candidate> WalkTree(const HostRoot& host, const std::string& directory, std::vector<Remark>& remarks) {
    std::string resolved;
    if (const int error = host.ResolveFolder(directory, resolved); error != 0) {
        throw Failure("cannot open the directory [" + directory + "]: " + std::strerror(error));
    }
    std::string start = host.Locate(resolved);
    const std::size_t prefix = start.size() - resolved.size();
    const Walk walk = Begin(start);
    if (!walk) {
        throw Failure("cannot list [" + directory + "]: " + std::strerror(errno));
    }
    std::vector<Candidate> files;
    for (const FTSENT* entry = fts_read(walk.get()); entry != nullptr; entry = fts_read(walk.get())) {
        ThrowIfInterrupted();
        // Where the walk starts at "/" its paths begin with one "/" only.
        const std::string path = std::string(entry->fts_path, entry->fts_pathlen).substr(prefix);
        if (IsUnreadable(*entry)) {
            remarks.push_back({path, std::strerror(entry->fts_errno)});
        } else if (MayBeExecuted(*entry)) {
            files.push_back({path, "", ""});
        }
    }
    return files;
}

} // namespace Ctl::Preset
