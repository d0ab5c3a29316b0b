#include "ctl/preset/Survey.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <tuple>
#include <unordered_set>

#include "ctl/preset/DpkgDatabase.h"
#include "ctl/preset/ExecutableFile.h"
#include "ctl/preset/Parallel.h"
#include "ctl/preset/ProgressBar.h"
#include "ctl/preset/TreeWalk.h"
#include "modules/TrustLists.h"
#include "sdk/FileUtils.h"

namespace Ctl::Preset {

const std::string FROM_DPKG = "dpkg";

namespace {

constexpr std::uint64_t MIB = 1U << 20U;

// One candidate on its way through the survey.
struct Subject {
    Candidate candidate;
    FileLook look;
    std::string sha256;
    int error = 0; // of the digest, an errno value
    bool changed = false;

    std::uint64_t BytesToDigest() const { return std::min(look.bytes, Engine::TRUST_MAX_FILE_BYTES); }
};

std::vector<Candidate> Collect(HostRoot& host, const std::vector<std::string>& sources, Survey& survey) {
    std::vector<Candidate> all;
    for (const std::string& source : sources) {
        std::vector<Candidate> found = source == FROM_DPKG ? DpkgDatabase(host).ListFiles(survey.remarks, survey.absent)
                                                           : WalkTree(host, source, survey.remarks);
        std::move(found.begin(), found.end(), std::back_inserter(all));
    }
    return all;
}

// A path that several sources name stays once, with a package if one owns it.
void SortByPath(std::vector<Candidate>& candidates) {
    const auto precedes = [](const Candidate& a, const Candidate& b) {
        const bool aUnowned = a.origin.empty();
        const bool bUnowned = b.origin.empty();
        return std::tie(a.path, aUnowned, a.origin) < std::tie(b.path, bUnowned, b.origin);
    };
    std::sort(candidates.begin(), candidates.end(), precedes);
    const auto samePath = [](const Candidate& a, const Candidate& b) { return a.path == b.path; };
    candidates.erase(std::unique(candidates.begin(), candidates.end(), samePath), candidates.end());
}

// The executables among the candidates, and those that may be one but cannot be read.
std::vector<Subject> LookAtAll(const HostRoot& host, std::vector<Candidate> candidates, unsigned threads) {
    std::vector<FileLook> looks(candidates.size());
    ProgressBar progress("files", candidates.size(), {"files", 1});
    ForEach(
        candidates.size(), threads,
        [&](std::size_t i) {
            looks[i] = LookAt(host.Locate(candidates[i].path));
            progress.Advance(1);
        },
        [&] { progress.Draw(); });
    std::vector<Subject> subjects;
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (looks[i].kind != FileLook::OTHER) {
            subjects.push_back({std::move(candidates[i]), looks[i], "", 0, false});
        }
    }
    return subjects;
}

// A conffile that was changed into a huge one is not read whole to find that out.
bool HasChanged(const std::string& file, const Subject& subject) {
    std::string md5;
    return SDK::FileUtils::GetFileHash(file, "MD5", md5, Engine::TRUST_MAX_FILE_BYTES) == 0 &&
           md5 != subject.candidate.md5;
}

void Digest(const HostRoot& host, Subject& subject) {
    const std::string file = host.Locate(subject.candidate.path);
    subject.error = DigestProgram(file, subject.sha256);
    subject.changed = subject.error == 0 && !subject.candidate.md5.empty() && HasChanged(file, subject);
}

void DigestAll(const HostRoot& host, std::vector<Subject>& subjects, unsigned threads) {
    const std::uint64_t total =
        std::accumulate(subjects.begin(), subjects.end(), std::uint64_t{0},
                        [](std::uint64_t sum, const Subject& subject) { return sum + subject.BytesToDigest(); });
    ProgressBar progress("digests", total, {"MiB", MIB});
    ForEach(
        subjects.size(), threads,
        [&](std::size_t i) {
            if (subjects[i].look.kind == FileLook::EXECUTABLE) {
                Digest(host, subjects[i]);
                progress.Advance(subjects[i].BytesToDigest());
            }
        },
        [&] { progress.Draw(); });
}

void Record(Subject& subject, Survey& survey) {
    const std::string& path = subject.candidate.path;
    if (subject.look.kind == FileLook::ABSENT) {
        ++survey.absent;
        return;
    }
    const int error = subject.look.kind == FileLook::UNREADABLE ? subject.look.error : subject.error;
    if (error != 0) {
        ++survey.unreadable;
        survey.remarks.push_back({path, std::strerror(error)});
        return;
    }
    if (subject.changed) {
        ++survey.changedConffiles;
        survey.remarks.push_back({path, "a conffile, changed since its package brought it"});
    }
    survey.bytes += subject.BytesToDigest();
    survey.executables.push_back({path, std::move(subject.candidate.origin), std::move(subject.sha256)});
}

} // namespace

Survey ConductSurvey(HostRoot& host, const std::vector<std::string>& sources, unsigned threads) {
    Survey survey;
    std::vector<Candidate> candidates = Collect(host, sources, survey);
    SortByPath(candidates);
    survey.looked = candidates.size();
    std::vector<Subject> subjects = LookAtAll(host, std::move(candidates), threads);
    DigestAll(host, subjects, threads);
    survey.unreadable = survey.remarks.size();
    for (Subject& subject : subjects) {
        Record(subject, survey);
    }
    std::sort(survey.remarks.begin(), survey.remarks.end(),
              [](const Remark& a, const Remark& b) { return a.path < b.path; });
    return survey;
}

std::vector<Entry> ToEntries(const Survey& survey, const std::string& os) {
    std::unordered_set<std::string> known;
    std::vector<Entry> entries;
    for (const Survey::Executable& executable : survey.executables) {
        if (known.insert(executable.sha256).second) {
            entries.push_back({executable.path, executable.sha256, os, executable.origin});
        }
    }
    return entries;
}

} // namespace Ctl::Preset
