#include "system/Program.h"

#include <csignal>
#include <stdexcept>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace SystemTest {

namespace {

constexpr int CANNOT_EXECUTE = 126;

// In the child, up to its end: only what may be done between fork and exec.
[[noreturn]] void Execute(char** words, const char* input, const char* output, const char* errors) {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_TRUNC;
    dup2(open(input, O_RDONLY), STDIN_FILENO);
    dup2(open(output, FLAGS, 0600), STDOUT_FILENO);
    dup2(open(errors, FLAGS, 0600), STDERR_FILENO);
    execvp(words[0], words);
    _exit(CANNOT_EXECUTE);
}

} // namespace

Program::Program(std::vector<std::string> words, const std::string& files, const std::string& input) : mFiles(files) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const std::string output = mFiles + ".out";
    const std::string errors = mFiles + ".err";
    // What an earlier program said must not be taken for this one's.
    unlink(output.c_str());
    unlink(errors.c_str());
    mPid = fork();
    if (mPid == 0) {
        Execute(argv.data(), input.c_str(), output.c_str(), errors.c_str());
    }
    if (mPid < 0) {
        throw std::runtime_error("cannot fork for " + words.front());
    }
}

Program::~Program() {
    if (!mEnded) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
}

std::string Program::GetOutput() const {
    return TestSupport::TempDir::ReadText(mFiles + ".out");
}

std::string Program::GetErrors() const {
    return TestSupport::TempDir::ReadText(mFiles + ".err");
}

void Program::Signal(int signal) const {
    if (!mEnded) {
        kill(mPid, signal);
    }
}

bool Program::WaitForEnd(std::chrono::milliseconds deadline) {
    return TestSupport::WaitFor(
        [this] {
            mEnded = mEnded || waitpid(mPid, &mWaitStatus, WNOHANG) == mPid;
            return mEnded;
        },
        deadline);
}

int Program::GetStatus() const {
    return mEnded && WIFEXITED(mWaitStatus) ? WEXITSTATUS(mWaitStatus) : -1;
}

} // namespace SystemTest
