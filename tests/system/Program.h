#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

namespace SystemTest {

// A program that the test runs, with what it writes in files. Killed and reaped at the end of the
// scope at the latest.
class Program {
public:
    // Its output goes to FILES.out and FILES.err; its standard input is the file `input`. Throws when no
    // process can be made; a program that cannot be executed exits with 126.
    Program(std::vector<std::string> words, const std::string& files, const std::string& input = "/dev/null");
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t GetPid() const { return mPid; }
    std::string GetOutput() const;
    std::string GetErrors() const;

    void Signal(int signal) const;

    // True once it has ended, at the deadline at the latest.
    bool WaitForEnd(std::chrono::milliseconds deadline);
    bool HasEnded() { return WaitForEnd(std::chrono::milliseconds(0)); }

    // The exit status; -1 while it runs and when a signal ended it.
    int GetStatus() const;

private:
    const std::string mFiles;
    pid_t mPid = -1;
    bool mEnded = false;
    int mWaitStatus = 0;
};

} // namespace SystemTest
