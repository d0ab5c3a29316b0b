#pragma once

namespace SDK {

// Takes from the calling thread, for good, and from every program that it starts, all ways to write to files
// that are not below /tmp: no file elsewhere can be opened for writing, made, removed or renamed, except
// /dev/null for writing. Nor can such a program gain rights by executing a file (no_new_privs). Reading and
// executing stay as they were. By Landlock (kernel documentation, userspace-api/landlock; from Linux 5.13).
//
// False where the kernel has no Landlock or it is switched off; the thread is as it was then.
bool ConfineWritesToTemporaryFiles();

} // namespace SDK
