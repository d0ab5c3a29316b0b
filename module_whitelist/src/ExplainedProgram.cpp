#include "ExplainedProgram.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ProcessManager.h"
#include "SpecifiedFileAudit.h"
#include "framework/Scope.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcStat.h"
#include "sdk/ProcessImage.h"
#include "sdk/ProcessUtils.h"
#include "utils/ProcessUtils.h"
#include "utils/Shebang.h"

namespace Engine {

namespace {

// Scripts whose interpreter is a script: the kernel follows no more (fs/exec.c, exec_binprm).
constexpr int MAX_INTERPRETERS = 5;

const ProcessManager& Manager() {
    return *ProcessManager::Instance();
}

// Why the first byte cannot be read; 0 when it can.
int TryToRead(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return errno;
    }
    char byte = 0;
    const int error = read(fd, &byte, 1) < 0 ? errno : 0;
    close(fd);
    return error;
}

// Why the file cannot be judged; empty when it can.
std::string FindProblem(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return "cannot find [" + path + "]: " + std::strerror(errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return "[" + path + "] is a directory";
    }
    if (!S_ISREG(status.st_mode)) {
        return "[" + path + "] is not a regular file";
    }
    const int error = TryToRead(path);
    return error == 0 ? "" : "cannot read [" + path + "]: " + std::strerror(error);
}

// The path as the kernel names the image of a process; empty when it leads nowhere.
std::string Resolve(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
    return resolved ? resolved.get() : "";
}

} // namespace

std::string ExplainedProgram::FindFile(const std::string& absolutePath) {
    if (!absolutePath.starts_with("/")) {
        return "[" + absolutePath + "] is not an absolute path";
    }
    file = absolutePath;
    std::string problem = FindImage();
    if (problem.empty()) {
        CompleteFile();
    }
    return problem;
}

std::string ExplainedProgram::FindProcess(int processId) {
    SDK::ProcStat stat;
    if (processId < 1 || SDK::ProcStat::Read(processId, stat) != 0) {
        return "there is no process " + std::to_string(processId);
    }
    pid = processId;
    record.pid = pid;
    inScope = Framework::Scope::Contains(pid);
    const SDK::ProcessImage held(pid);
    SDK::ProcessUtils::GetProcessExePath(pid, image);
    if (!image.empty()) {
        Examine();
        TakeRowOrRecord();
        interpreter = record.type == MATCH_PATH;
        script = interpreter && record.path != image ? record.path : "";
    }
    FindExemption();
    return "";
}

// Sets the image that the kernel starts for the file. Why there is none; empty when there is.
std::string ExplainedProgram::FindImage() {
    image = file;
    std::string problem = FindProblem(image);
    for (int i = 0; problem.empty() && i < MAX_INTERPRETERS; ++i) {
        const std::string line = utils::shebang::ReadInterpreter(image);
        if (line.empty()) {
            return "";
        }
        script = file;
        problem = FindProblem(line);
        if (!problem.empty()) {
            return "the interpreter of the script [" + image + "]: " + problem;
        }
        image = Resolve(line);
    }
    return problem;
}

void ExplainedProgram::Examine() {
    if (directoryMode) {
        examination.prelinked = Manager().IsPrelinkedProcess(image.c_str());
        AntiransonwareProcessUtils::RetrieveImageHash(image.c_str(), examination.digest);
    } else {
        examination = Manager().ExamineImage(image);
    }
}

// A record of the image, with the digest that has been computed already.
void ExplainedProgram::FillRecord() {
    record.path = image;
    record.hash = examination.digest;
    record.detailRetrieved = true;
}

void ExplainedProgram::CompleteFile() {
    Examine();
    FillRecord();
    interpreter = AntiransonwareProcessUtils::IsInterpreterProcess(record, Manager().GetInterpreterNames());
    if (interpreter) {
        record.type = MATCH_PATH;
        if (!script.empty()) {
            AntiransonwareProcessUtils::BecomeScript(record, script, SDK::PathUtils::GetFileNameFromPath(script));
        }
    }
}

// What directory mode remembers of the process, or what the agent would find out now.
void ExplainedProgram::TakeRowOrRecord() {
    const std::optional<ProcessInfo> row = directoryMode ? Manager().FindProcess(pid) : std::nullopt;
    if (!row) {
        FillRecord();
        Manager().CompleteRecord(record);
        return;
    }
    record = *row;
    if (!row->detailRetrieved && row->path == image) {
        FillRecord();
    }
    AntiransonwareProcessUtils::RetrieveProcessDetailInfo(record);
}

void ExplainedProgram::FindExemption() {
    if (!directoryMode) {
        // What the image holds is the lesser reason.
        const Exemption first = Manager().FindExemption(pid, image);
        examination.exemption = first == Exemption::NONE ? examination.exemption : first;
    } else if (image.empty()) {
        examination.exemption = Exemption::NO_IMAGE;
    } else if (SpecifiedFileAudit::IsOwnProcess(pid)) {
        examination.exemption = Exemption::OWN_PROCESS;
    } else if (record.trusted) {
        examination.exemption = Exemption::TRUSTED_AT_START;
    }
}

} // namespace Engine
