#pragma once

#include <string>
#include <vector>

#include <sys/stat.h>

#include "ProcessInfo.h"

// Fills a ProcessInfo from a live process: its image, name, digest and command line, and, for an
// interpreter, the script that it runs.
//
// No state of their own, so they may be called from any thread, each on a record of its caller's.
// Nothing throws; what cannot be found out leaves the record's field as described.
namespace AntiransonwareProcessUtils {

using Engine::ProcessInfo;

// The digest of at most the first 10 MiB of the file. The result is that of the digest call taken as
// a truth value (true when it failed); look at `hash` instead, which is empty then.
bool RetrieveImageHash(const char* fileName, std::string& hash);

// Sets `cmdline`, to an empty text when it cannot be read. The result is that of the underlying call
// taken as a truth value (true when it failed); look at `cmdline` instead.
bool RetreiveProcessCmdLine(ProcessInfo& info);

// Sets `path` to the process's image. False, `path` untouched, when the process is gone or has none.
bool RetreiveProcessImage(ProcessInfo& info);

// Sets `name` to what follows the last "/" of `path`, possibly nothing. False, `name` untouched, when
// there is no "/".
bool GetProcessNameFromImage(ProcessInfo& info);

// Fills `path`, if it is empty, and `hash`. Tried once for a record: `detailRetrieved` is set even
// when the attempt fails, and a record that has it set is left alone. True when the digest is known.
bool RetrieveProcessDetailInfo(ProcessInfo& info);

// True when the image's file name is one of the names. "python" stands for every name that begins
// with it. Sets `name`.
bool IsInterpreterProcess(ProcessInfo& info, const std::vector<std::string>& interpreterNames);

// The entry point for interpreters. When the process is one, `type` becomes MATCH_PATH and, if the
// script can be found, `path`, `name` and `hash` become the script's; otherwise they stay the
// interpreter's. True exactly when the process is an interpreter.
bool CheckInterpreterProcess(ProcessInfo& info, const std::vector<std::string>& interpreterNames);

// Puts the script in the interpreter's place: its path, name and digest.
void BecomeScript(ProcessInfo& info, const std::string& path, const std::string& name);

// Looks for the script in the command line, then among the open files. True when it was found.
bool GetInterpreterInfo(ProcessInfo& info);

// The first argument that names an existing regular file, relative ones taken from the process's
// working directory and not normalised. Options are not skipped, they just name no file.
bool GetFileInfoFromCmd(ProcessInfo& info, const std::vector<std::string>& arguments);

// The first open file, in directory order, whose file name is one of the arguments.
bool GetFileInfoFromFd(ProcessInfo& info, const std::vector<std::string>& arguments);

// Whether a file still has the content for which its process was judged. With `byImageLink` the file
// is the process's own image and `status` stays as it is; otherwise it is `path`, and `status` is
// filled from it, also when the digests differ. `expectedHash` must hold 64 lowercase hexadecimal
// characters.
bool ProcessHashCheck(int pid, const char* path, const char* expectedHash, bool byImageLink, struct stat& status);

} // namespace AntiransonwareProcessUtils
