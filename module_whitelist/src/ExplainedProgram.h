#pragma once

#include <string>

#include "Exemption.h"
#include "ProcessInfo.h"

namespace Engine {

// A program whose verdict is to be explained: what the agent would find out about a process, or about one
// that is started from a file, before it asks its lists. Finding it out changes nothing.
struct ExplainedProgram {
    // The mode is asked once, so that the explanation is of one mode throughout.
    explicit ExplainedProgram(bool dirMode) : directoryMode(dirMode) {}

    // Both set everything below. The reason why there is nothing to be explained; empty when there is.
    std::string FindFile(const std::string& absolutePath);
    std::string FindProcess(int processId);

    // True when a decision has something to ask the lists about.
    bool IsLookedUp() const { return !image.empty() && (directoryMode || !examination.digest.empty()); }

    const bool directoryMode;
    int pid = 0;        // 0 for a file
    std::string file;   // empty for a process
    std::string image;  // what the kernel runs, for a script its interpreter; empty when there is none
    std::string script; // that the image runs; empty when there is none or it is not known
    ProcessInfo record; // as the agent would keep it: the script's for an interpreter that runs one
    bool interpreter = false;
    bool inScope = true;          // the agent sees the process
    ImageExamination examination; // of the image; in directory mode its content as it is

private:
    std::string FindImage();
    void Examine();
    void FillRecord();
    void CompleteFile();
    void TakeRowOrRecord();
    void FindExemption();
};

} // namespace Engine
