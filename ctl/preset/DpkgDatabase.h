#pragma once

#include <map>
#include <string>
#include <vector>

#include "ctl/preset/Candidate.h"
#include "ctl/preset/HostRoot.h"

namespace Ctl::Preset {

// The database of dpkg, as it is laid out since Debian 7 (dpkg(1), dpkg-divert(1), deb-conffiles(5)):
//
//     status                    a paragraph for each package: state, version, conffiles
//     info/PACKAGE.list         the files that a package brought, a path a line;
//     info/PACKAGE:ARCH.list    of one that can be installed for several architectures at once
//     diversions                three lines each: the diverted path, where to, by which package
//
// Counted are the packages whose files are in place: installed, or waiting for triggers only. What a
// package brought lies under another name where another package diverted it.
class DpkgDatabase {
public:
    // Reads the state of the packages and the diversions of the host. Throws Failure when it has no
    // such database.
    explicit DpkgDatabase(HostRoot& host);

    // Everything that the packages brought, directories and links included; what is in a folder that is
    // no more is left out and counted in `absent`. A package without a list of files is remarked on.
    std::vector<Candidate> ListFiles(std::vector<Remark>& remarks, std::size_t& absent) const;

    std::size_t CountPackages() const { return mPackages.size(); }

private:
    struct Package {
        std::string name;
        std::string architecture;
        std::string version;
        std::map<std::string, std::string> conffiles; // path to MD5 digest
    };
    struct Diversion {
        std::string target;
        std::string package; // ":" for one of the administrator's
    };

    void ReadStatus();
    void ReadDiversions();
    bool ReadList(const Package& package, std::vector<std::string>& paths) const;
    const std::string& WhereItLies(const std::string& path, const Package& package) const;

    HostRoot& mHost;
    std::vector<Package> mPackages;
    std::map<std::string, Diversion> mDiversions; // by the diverted path
};

} // namespace Ctl::Preset
