#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <elf.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include "TrustEngineTest.h"
#include "sdk/ProcessImage.h"
#include "support/ForeignProcess.h"

namespace EngineTest {

namespace {

constexpr std::uint32_t LIBRARY_LIST = 0x6ffffff7;

template <typename T> std::string Bytes(const T& value) {
    return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

// A 64-bit ELF header for a file with `sections` section headers at `offset`.
Elf64_Ehdr Header(std::uint16_t sections, std::uint64_t offset = sizeof(Elf64_Ehdr)) {
    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_ehsize = sizeof(header);
    header.e_shoff = offset;
    header.e_shnum = sections;
    return header;
}

std::string Section(std::uint32_t type) {
    Elf64_Shdr section{};
    section.sh_type = type;
    return Bytes(section);
}

std::string Elf(const std::vector<std::uint32_t>& sectionTypes) {
    std::string file = Bytes(Header(static_cast<std::uint16_t>(sectionTypes.size())));
    for (const std::uint32_t type : sectionTypes) {
        file += Section(type);
    }
    return file;
}

// A program that runs, marked as prelink leaves its files behind.
std::string Prelinked(std::string program) {
    Elf64_Ehdr header{};
    std::memcpy(&header, program.data(), sizeof(header));
    program.replace(header.e_shoff + sizeof(Elf64_Shdr) + offsetof(Elf64_Shdr, sh_type), sizeof(LIBRARY_LIST),
                    Bytes(LIBRARY_LIST));
    return program;
}

class PrelinkTest : public TrustEngineTest {
protected:
    PrelinkTest() {
        std::filesystem::create_directories(root / "tools");
        setenv("PATH", (root / "tools:/usr/bin:/bin").c_str(), 1);
    }

    // Puts a program of that name into the search path: it keeps its arguments, then runs `body`.
    void InstallPrelink(const std::string& body) const {
        const std::string path =
            root.Write("tools/prelink", "#!/bin/sh\nprintf '%s\\n' \"$@\" > '" + root / "asked" + "'\n" + body + "\n");
        chmod(path.c_str(), 0755);
    }

    bool IsPrelinked(const std::string& content) const {
        return engine.IsPrelinkedProcess(root.Write("image", content).c_str());
    }

    static std::string TempFor(const std::string& path) {
        return "/tmp/" + NameOf(path) + "." + std::to_string(getpid());
    }

    // "-u" undoes into "-o", whatever was asked for.
    static constexpr const char* UNDO = R"([ "$1" = -u ] && [ "$3" = -o ] && printf original > "$4")";
};

} // namespace

// ---- Recognition -----------------------------------------------------------------------------------

TEST_F(PrelinkTest, AFileWithALibraryListSectionIsPrelinked) {
    EXPECT_TRUE(IsPrelinked(Elf({LIBRARY_LIST})));
    EXPECT_TRUE(IsPrelinked(Elf({SHT_NULL, SHT_PROGBITS, LIBRARY_LIST})));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(PrelinkTest, AFileWithoutOneIsNot) {
    EXPECT_FALSE(IsPrelinked(Elf({})));
    EXPECT_FALSE(IsPrelinked(Elf({SHT_NULL, SHT_PROGBITS, LIBRARY_LIST - 1, LIBRARY_LIST + 1})));
    EXPECT_FALSE(engine.IsPrelinkedProcess("/bin/sleep"));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(PrelinkTest, SectionsBeyondTheirNumberDoNotCount) {
    EXPECT_FALSE(IsPrelinked(Bytes(Header(0)) + Section(LIBRARY_LIST)));
    EXPECT_FALSE(IsPrelinked(Bytes(Header(1)) + Section(SHT_NULL) + Section(LIBRARY_LIST)));
}

TEST_F(PrelinkTest, OfManySectionsEachIsLookedAt) {
    constexpr std::size_t MANY = 200;
    for (const std::size_t place : {std::size_t{63}, std::size_t{64}, std::size_t{128}, MANY - 1}) {
        std::vector<std::uint32_t> types(MANY, SHT_PROGBITS);
        EXPECT_FALSE(IsPrelinked(Elf(types)));
        types[place] = LIBRARY_LIST;
        EXPECT_TRUE(IsPrelinked(Elf(types))) << place;
    }
}

TEST_F(PrelinkTest, SectionHeadersAreReadWhereTheFileHeaderSays) {
    EXPECT_TRUE(IsPrelinked(Bytes(Header(2, 100)) + std::string(36, '\0') + Section(SHT_NULL) + Section(LIBRARY_LIST)));
}

TEST_F(PrelinkTest, SectionHeadersThatAreNotThereAreNotFound) {
    for (const std::uint64_t offset :
         {std::uint64_t{65}, std::uint64_t{1} << 40, ~std::uint64_t{0}, ~std::uint64_t{63}}) {
        EXPECT_FALSE(IsPrelinked(Bytes(Header(65535, offset)) + Section(LIBRARY_LIST))) << offset;
    }
    EXPECT_FALSE(IsPrelinked(Bytes(Header(1)) + Section(LIBRARY_LIST).substr(0, 63)));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(PrelinkTest, AFileOfThirtyTwoBitsIsNeverPrelinked) {
    Elf32_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ehsize = sizeof(header);
    EXPECT_FALSE(IsPrelinked(Bytes(header) + std::string(200, '\0')));
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "ELF file header size is err!"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(PrelinkTest, AHeaderOfAnotherSizeIsNotBelieved) {
    Elf64_Ehdr header = Header(1);
    header.e_ehsize = 63;
    EXPECT_FALSE(IsPrelinked(Bytes(header) + Section(LIBRARY_LIST)));
    EXPECT_FALSE(IsPrelinked(std::string(ELFMAG, SELFMAG)));
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "ELF file header size is err!"), 2);
}

TEST_F(PrelinkTest, WhatIsNoElfFileIsNotPrelinked) {
    ASSERT_EQ(mkfifo((root / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(IsPrelinked(""));
    EXPECT_FALSE(IsPrelinked("\177EL"));
    EXPECT_FALSE(IsPrelinked("#!/bin/sh\n" + std::string(100, ' ')));
    EXPECT_FALSE(engine.IsPrelinkedProcess(root.Path().c_str()));
    EXPECT_FALSE(engine.IsPrelinkedProcess((root / "fifo").c_str()));
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "not an elf file!"), 5);
    EXPECT_EQ(log.Records().size(), 5U);
}

TEST_F(PrelinkTest, OfAHeldImageItIsAskedWhatRunsAndNotWhatLiesAtThePath) {
    const std::string program = TestSupport::TempDir::ReadText("/bin/sleep");
    const std::string path = root.Write("sleep", Prelinked(program));
    chmod(path.c_str(), 0755);
    const TestSupport::ForeignProcess process({.words = {path, "600"}});
    std::filesystem::remove(path);
    root.Write("sleep", program);
    EXPECT_FALSE(engine.IsPrelinkedProcess(path.c_str()));
    {
        const SDK::ProcessImage held(process.Pid());
        EXPECT_TRUE(engine.IsPrelinkedProcess(path.c_str()));
    }
    EXPECT_FALSE(engine.IsPrelinkedProcess(path.c_str()));
}

// Some devices act when they are opened.
TEST_F(PrelinkTest, ADeviceIsNotOpened) {
    const std::string device = root / "device";
    ASSERT_EQ(mknod(device.c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(watch, device.c_str(), IN_OPEN), 0);
    EXPECT_FALSE(engine.IsPrelinkedProcess(device.c_str()));
    char events[1024];
    EXPECT_EQ(read(watch, events, sizeof(events)), -1);
    close(open(device.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_GT(read(watch, events, sizeof(events)), 0);
    close(watch);
}

TEST_F(PrelinkTest, APathThatLeadsNowhereIsNotPrelinked) {
    std::filesystem::create_symlink(root / "missing", root / "dangling");
    EXPECT_FALSE(engine.IsPrelinkedProcess(nullptr));
    EXPECT_FALSE(engine.IsPrelinkedProcess(""));
    EXPECT_FALSE(engine.IsPrelinkedProcess((root / "missing").c_str()));
    EXPECT_FALSE(engine.IsPrelinkedProcess((root / "dangling").c_str()));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(PrelinkTest, AFileThatCannotBeOpenedIsNotPrelinked) {
    // A socket's name resolves, but nobody can open it.
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (root / "socket").c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_FALSE(engine.IsPrelinkedProcess(address.sun_path));
    close(fd);
    EXPECT_EQ(log.Count(Message::PRIO_TRACE, "open file failed."), 1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(PrelinkTest, LinksAreFollowed) {
    root.Write("image", Elf({LIBRARY_LIST}));
    std::filesystem::create_symlink("image", root / "link");
    EXPECT_TRUE(engine.IsPrelinkedProcess((root / "link").c_str()));
}

// ---- Undoing ---------------------------------------------------------------------------------------

TEST_F(PrelinkTest, TheDigestBeforePrelinkingIsThatOfTheUndoneFile) {
    InstallPrelink(UNDO);
    const std::string image = root.Write("my tool", "prelinked");
    std::string digest;
    EXPECT_TRUE(engine.RevertPrelinkedProcessHash(image, digest));
    EXPECT_EQ(digest, Digest("original"));
    EXPECT_EQ(root.Read("asked"), "-u\n" + image + "\n-o\n" + TempFor(image) + "\n");
    EXPECT_FALSE(std::filesystem::exists(TempFor(image)));
    EXPECT_EQ(root.Read("my tool"), "prelinked");
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(PrelinkTest, TheCommandsResultDoesNotCount) {
    InstallPrelink(std::string(UNDO) + "\nexit 1");
    std::string digest;
    EXPECT_TRUE(engine.RevertPrelinkedProcessHash(root.Write("tool", "prelinked"), digest));
    EXPECT_EQ(digest, Digest("original"));
}

TEST_F(PrelinkTest, WithoutAnUndoneFileThereIsNoDigest) {
    const std::string image = root.Write("tool", "prelinked");
    std::string digest = "untouched";
    EXPECT_FALSE(engine.RevertPrelinkedProcessHash(image, digest));
    InstallPrelink("exit 0");
    EXPECT_FALSE(engine.RevertPrelinkedProcessHash(image, digest));
    EXPECT_EQ(digest, "untouched");
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Get file [tool] hash failed"), 2);
    EXPECT_EQ(CountUpTo(Message::PRIO_ERROR), 2);
}

TEST_F(PrelinkTest, AnUndoneFileThatCannotBeReadStaysBehind) {
    InstallPrelink(R"(rm "$4" && mkdir "$4")");
    const std::string image = root.Write("tool", "prelinked");
    std::string digest;
    EXPECT_FALSE(engine.RevertPrelinkedProcessHash(image, digest));
    EXPECT_TRUE(std::filesystem::remove(TempFor(image)));
}

// ---- Decision --------------------------------------------------------------------------------------

namespace {

class PrelinkedProcessTest : public PrelinkTest {
protected:
    // A running program that prelink has rewritten.
    PrelinkedProcessTest() : program(CopyProgram("/bin/sleep", "prelinked")) {
        root.Write("programs/prelinked", Prelinked(TestSupport::TempDir::ReadText(program)));
        chmod(program.c_str(), 0755);
    }

    const std::string program;
};

} // namespace

TEST_F(PrelinkedProcessTest, IsJudgedByTheDigestOfItsOriginal) {
    InstallPrelink(UNDO);
    const TestSupport::ForeignProcess process({.words = {program, "1000"}});
    engine.UpdateLocalProcessInfo(Record(program, DigestOfFile(program)));
    EXPECT_FALSE(engine.ProcessVerify(process.Pid()));
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, "process [prelinked] [" + program + "] is not in white hash list"),
              1);
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry(Digest("original"))})));
    EXPECT_TRUE(engine.ProcessVerify(process.Pid()));
}

TEST_F(PrelinkedProcessTest, IsLetGoWhenTheOriginalCannotBeHad) {
    const TestSupport::ForeignProcess process({.words = {program, "1000"}});
    EXPECT_TRUE(engine.ProcessVerify(process.Pid()));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Get file [prelinked] hash failed"), 1);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Revert prelinked process hash failed"), 1);
    EXPECT_EQ(CountUpTo(Message::PRIO_INFORMATION), 2);
}

} // namespace EngineTest
