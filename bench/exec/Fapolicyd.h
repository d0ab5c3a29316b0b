#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/TempRoot.h"
#include "system/Program.h"

namespace Bench {

// fapolicyd, permissive, watching a ramfs of its own and nothing else. It runs, as everything that the calling
// thread starts from then on, in a mount namespace where its configuration and its data base are this object's.
class Fapolicyd {
public:
    static bool IsInstalled();

    // `integrity` is none, size or sha256. The programs are trusted. Throws when it does not start.
    Fapolicyd(const std::string& integrity, const std::vector<std::string>& programs);
    ~Fapolicyd();
    Fapolicyd(const Fapolicyd&) = delete;
    Fapolicyd& operator=(const Fapolicyd&) = delete;

    // Where it watches the copy of a program that is trusted.
    std::string PathOf(const std::string& program) const;

    std::uint64_t ReadCpuNs() const;

private:
    void Configure(const std::string& integrity, const std::vector<std::string>& programs) const;
    void Start();

    const TestSupport::TempDir mWatched;
    const TestSupport::TempDir mFiles;
    std::unique_ptr<SystemTest::Program> mDaemon;
};

} // namespace Bench
