#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <elf.h>
#include <sys/stat.h>

#include "support/TempRoot.h"

namespace TestSupport {

// The beginning of an ELF file of that type (e_type), little-endian, and some bytes behind it.
inline std::string MakeElf(unsigned char type, const std::string& behind = "") {
    std::string head(sizeof(Elf64_Ehdr), '\0');
    head.replace(0, SELFMAG, ELFMAG);
    head[EI_CLASS] = ELFCLASS64;
    head[EI_DATA] = ELFDATA2LSB;
    head[EI_NIDENT] = static_cast<char>(type);
    return head + behind;
}

// The root directory of a made-up host with a package database.
class FakeHost : public TempDir {
public:
    struct Package {
        std::string name;
        std::vector<std::string> files{};
        std::string status = "install ok installed";
        std::string version = "1.0-1";
        std::string fields{}; // more lines of its paragraph
        std::string list{};   // the name of its list, when that is another one than NAME.list
    };

    FakeHost() {
        chmod(Path().c_str(), 0755);
        Write("etc/os-release", "NAME=\"Some Linux\"\nVERSION_ID=\"12\"\nID=debian\n");
    }

    void Install(const Package& package) {
        mStatus += "Package: " + package.name + "\nStatus: " + package.status +
                   "\nArchitecture: amd64\nVersion: " + package.version + "\n" + package.fields +
                   "Description: one\n more lines\n .\n\n";
        Write("var/lib/dpkg/status", mStatus);
        std::string list = "/.\n";
        for (const std::string& file : package.files) {
            list += file + "\n";
        }
        Write("var/lib/dpkg/info/" + (package.list.empty() ? package.name + ".list" : package.list), list);
    }

    void Divert(const std::string& path, const std::string& target, const std::string& package) {
        mDiversions += path + "\n" + target + "\n" + package + "\n";
        Write("var/lib/dpkg/diversions", mDiversions);
    }

    void Add(const std::string& path, const std::string& content, mode_t mode = 0755) const {
        const std::string file = Write(path.substr(1), content);
        chmod(file.c_str(), mode);
    }

    void AddProgram(const std::string& path) const { Add(path, MakeElf(ET_DYN, path)); }

    void Link(const std::string& path, const std::string& target) const {
        std::filesystem::create_directories(std::filesystem::path(Path() + path).parent_path());
        std::filesystem::create_symlink(target, Path() + path);
    }

private:
    std::string mStatus;
    std::string mDiversions;
};

} // namespace TestSupport
