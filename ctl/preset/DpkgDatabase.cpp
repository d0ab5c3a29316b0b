#include "ctl/preset/DpkgDatabase.h"

#include <cerrno>
#include <fstream>
#include <sstream>

#include "ctl/Document.h"
#include "ctl/Failure.h"
#include "sdk/StrUtils.h"

namespace Ctl::Preset {

namespace {

const std::string FOLDER = "/var/lib/dpkg/";

// A paragraph of the status file (deb822(5)): each field's text, continuation lines included.
using Paragraph = std::map<std::string, std::string>;

// False at the end of the text.
bool ReadParagraph(std::istream& text, Paragraph& fields) {
    fields.clear();
    std::string* last = nullptr;
    for (std::string line; std::getline(text, line);) {
        if (line.empty()) {
            if (!fields.empty()) {
                return true;
            }
            continue;
        }
        const std::size_t colon = line.find(':');
        if (line.front() == ' ' || line.front() == '\t') {
            if (last != nullptr) {
                last->append("\n").append(line);
            }
        } else if (colon != std::string::npos) {
            last = &(fields[line.substr(0, colon)] = SDK::StrUtils::Trim(line.substr(colon + 1)));
        }
    }
    return !fields.empty();
}

// "WANTED FLAG STATE", for example "install ok installed".
bool IsInPlace(const std::string& status) {
    const std::string state = status.substr(status.rfind(' ') + 1);
    return state == "installed" || state == "triggers-pending" || state == "triggers-awaited";
}

// Lines of "PATH MD5", with words about the file's fate behind it. A path may hold blanks.
std::map<std::string, std::string> ParseConffiles(const std::string& text) {
    constexpr std::size_t MD5_DIGITS = 32;
    std::map<std::string, std::string> conffiles;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line = SDK::StrUtils::Trim(line);
        for (std::size_t blank = line.rfind(' '); blank != std::string::npos; blank = line.rfind(' ')) {
            const std::string word = line.substr(blank + 1);
            line.erase(blank);
            if (word.size() == MD5_DIGITS && word.find_first_not_of("0123456789abcdef") == std::string::npos) {
                conffiles.emplace(line, word);
                break;
            }
        }
    }
    return conffiles;
}

} // namespace

DpkgDatabase::DpkgDatabase(HostRoot& host) : mHost(host) {
    ReadStatus();
    ReadDiversions();
}

void DpkgDatabase::ReadStatus() {
    std::istringstream text(Ctl::ReadDocument(mHost.Locate(FOLDER + "status")));
    for (Paragraph fields; ReadParagraph(text, fields);) {
        if (IsInPlace(fields["Status"]) && !fields["Package"].empty()) {
            mPackages.push_back(
                {fields["Package"], fields["Architecture"], fields["Version"], ParseConffiles(fields["Conffiles"])});
        }
    }
    if (mPackages.empty()) {
        throw Failure("[" + mHost.Locate(FOLDER + "status") + "] names no installed package");
    }
}

// A host may have none.
void DpkgDatabase::ReadDiversions() {
    std::ifstream text(mHost.Locate(FOLDER + "diversions"), std::ios::binary);
    std::string path;
    Diversion diversion;
    while (std::getline(text, path) && std::getline(text, diversion.target) && std::getline(text, diversion.package)) {
        mDiversions[path] = diversion;
    }
}

bool DpkgDatabase::ReadList(const Package& package, std::vector<std::string>& paths) const {
    const std::string prefix = mHost.Locate(FOLDER + "info/" + package.name);
    std::ifstream list(prefix + ":" + package.architecture + ".list", std::ios::binary);
    if (!list.is_open()) {
        list.open(prefix + ".list", std::ios::binary);
    }
    paths.clear();
    for (std::string line; std::getline(list, line);) {
        paths.push_back(line);
    }
    return list.is_open();
}

const std::string& DpkgDatabase::WhereItLies(const std::string& path, const Package& package) const {
    const auto diversion = mDiversions.find(path);
    const bool diverted = diversion != mDiversions.end() && diversion->second.package != package.name;
    return diverted ? diversion->second.target : path;
}

std::vector<Candidate> DpkgDatabase::ListFiles(std::vector<Remark>& remarks, std::size_t& absent) const {
    std::vector<Candidate> files;
    std::vector<std::string> paths;
    for (const Package& package : mPackages) {
        if (!ReadList(package, paths)) {
            remarks.push_back({FOLDER + "info/" + package.name + ".list", "the package's list of files is missing"});
        }
        const std::string origin = package.name + " " + package.version;
        for (const std::string& path : paths) {
            const std::optional<std::string> place = mHost.Resolve(WhereItLies(path, package));
            if (!place) {
                ++absent;
                continue;
            }
            const auto conffile = package.conffiles.find(path);
            files.push_back({*place, origin, conffile == package.conffiles.end() ? "" : conffile->second});
        }
    }
    return files;
}

} // namespace Ctl::Preset
