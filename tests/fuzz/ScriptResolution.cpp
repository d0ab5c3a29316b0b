// Which script an interpreter runs (AntiransonwareProcessUtils::CheckInterpreterProcess), and which interpreter
// the kernel would start for a script (utils::shebang::ReadInterpreter). Parts of the input: the script, the
// image's name, the command line.

#include <climits>
#include <set>
#include <string>
#include <vector>

#include <openssl/sha.h>
#include <sys/stat.h>

#include "fuzz/Fuzz.h"
#include "utils/ProcessUtils.h"
#include "utils/Shebang.h"

namespace {

namespace Utils = AntiransonwareProcessUtils;
using Engine::ProcessInfo;

const std::vector<std::string> INTERPRETERS = {"bash", "sh", "python"};

// The kernel's BINPRM_BUF_SIZE.
constexpr std::size_t HEAD_BYTES = 256;

// What an interpreter may find in its working directory.
struct Folder {
    Folder() {
        dir.Write("a", "a");
        dir.Write("-x", "not an option");
        dir.Write("inner/b.sh", "b");
        std::filesystem::create_symlink("inner/b.sh", dir / "link.sh");
        mkfifo((dir / "fifo").c_str(), 0600);
        opened.Reset(open(dir.Write("opened.sh", "opened").c_str(), O_RDONLY | O_CLOEXEC));
        gone.Reset(open(dir.Write("gone.sh", "gone").c_str(), O_RDONLY | O_CLOEXEC));
        std::filesystem::remove(dir / "gone.sh");
    }

    TestSupport::TempDir dir{std::filesystem::canonical(Fuzz::FolderForFiles())};
    SDK::FileDescriptor opened;
    SDK::FileDescriptor gone;
};

std::vector<std::string> SplitAtBlanks(const std::string& text) {
    std::vector<std::string> words(1);
    for (const char c : text) {
        if (c != ' ') {
            words.back() += c;
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    if (words.back().empty()) {
        words.pop_back();
    }
    return words;
}

bool IsRegular(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// What an argument leads to.
std::string CandidateOf(const std::string& folder, const std::string& argument) {
    return argument.starts_with("/") ? argument : folder + "/" + argument;
}

// The machine's own files are none of a fuzzer's business.
bool LeadsOutside(const std::string& folder, const std::string& path) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) {
        return false;
    }
    return !(std::string(resolved) + "/").starts_with(folder + "/");
}

std::string DigestOf(const std::string& path) {
    const std::string text = TestSupport::TempDir::ReadText(path.c_str());
    unsigned char bytes[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), bytes);
    std::string digest;
    for (const unsigned char byte : bytes) {
        digest += "0123456789abcdef"[byte >> 4U];
        digest += "0123456789abcdef"[byte & 15U];
    }
    return digest;
}

std::string BehindLastSlash(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string ExpectInterpreter(const std::string& script) {
    std::string head = script.substr(0, HEAD_BYTES);
    if (!head.starts_with("#!")) {
        return "";
    }
    head.erase(0, 2);
    head = head.substr(0, head.find('\n'));
    head = head.c_str();
    head.erase(0, std::min(head.find_first_not_of(" \t"), head.size()));
    return head.substr(0, head.find_first_of(" \t"));
}

bool IsInterpreter(const std::string& name) {
    return name == "bash" || name == "sh" || name.starts_with("python");
}

void CheckScript(const ProcessInfo& before, const ProcessInfo& info, const std::string& folder) {
    const std::vector<std::string> words = SplitAtBlanks(before.cmdline);
    const std::set<std::string> names(words.begin(), words.end());
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string candidate = CandidateOf(folder, words[i]);
        if (IsRegular(candidate)) {
            Fuzz::Require(info.path == candidate && info.name == BehindLastSlash(candidate),
                          "the first argument that is a file is the script", info.path + " " + candidate);
            Fuzz::Require(info.hash == DigestOf(candidate), "and the digest is its own");
            return;
        }
    }
    if (info.path != before.path) {
        Fuzz::Require(names.count(info.name) == 1 && IsRegular(info.path) && BehindLastSlash(info.path) == info.name,
                      "a script found among the open files was named", info.path);
    }
    Fuzz::Require(info.path != before.path || names.count("opened.sh") == 0, "an open file that is named is found");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    static const Fuzz::LogCheck log;
    static const Folder files;
    const std::string& folder = files.dir.Path();
    std::vector<std::string> parts = Fuzz::SplitInput(data, size);
    parts.resize(3);
    const Fuzz::WorkingIn work(folder);

    const std::string script = files.dir.Write("script.sh", parts[0]);
    Fuzz::Require(utils::shebang::ReadInterpreter(script) == ExpectInterpreter(parts[0]),
                  "the interpreter is the first word behind the shebang");

    ProcessInfo info(getpid());
    info.path = folder + "/" + parts[1];
    info.cmdline = parts[2];
    for (const std::string& word : SplitAtBlanks(info.cmdline)) {
        if (LeadsOutside(folder, CandidateOf(folder, word))) {
            return -1;
        }
    }
    if (info.cmdline.empty() || LeadsOutside(folder, info.path)) {
        return -1;
    }
    const ProcessInfo before = info;
    const bool found = Utils::CheckInterpreterProcess(info, INTERPRETERS);
    Fuzz::Require(found == IsInterpreter(BehindLastSlash(before.path)), "an interpreter is known by its name");
    if (found) {
        Fuzz::Require(info.type == Engine::MATCH_PATH, "what an interpreter runs is matched by path");
        CheckScript(before, info, folder);
    } else {
        Fuzz::Require(info.type == before.type && info.path == before.path && info.hash.empty() &&
                          info.name == BehindLastSlash(before.path),
                      "of anything else only the name is taken");
    }
    Fuzz::Require(info.cmdline == before.cmdline && info.pid == before.pid, "the process stays the same");
    return 0;
}
