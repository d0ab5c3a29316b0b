#pragma once

#include <cstdint>
#include <string>

#include <json/value.h>

namespace Engine {

// Explains how detection would decide on a process, or on one that is started from a file, by asking
// what decides (ProcessManager, "What the decisions are made of"). Changes nothing: nothing is adopted,
// reported or isolated, no table is touched. Any thread.
//
//     pid              the process, or null
//     file             the file that was asked about, or null
//     image            what the kernel runs: for a script its interpreter; null when there is none
//     name             its file name
//     size, digest     of the image; the digest as the lists know it; null when they cannot be had
//     prelinked        true, false, or null without an image
//     interpreter      true when the image is one that runs scripts
//     script           {"path", "digest"} of the script that it runs, or null
//     type, kind       2, "script": learned by the path of the script; 1, "image": by the digest; null
//                      without an image
//     mode, mode_name, directory_mode     what the agent is in
//     in_scope         whether the agent sees the process; null for a file
//     judged           {"path", "name", "hash"}: what the lists are asked about; in directory mode also
//                      "type"
//     lists            for each list in the order of the decision: {"list": "local" | "server" | "os" |
//                      "service", "vouches", "reason", "entry": the one meant by the reason, or null}
//                      reason: "vouched_for", "unknown_path", "unknown_name", "unknown_digest",
//                      "other_digest", "other_kind", "other_path"; "not_asked" where the decision would
//                      not have asked, because there is no digest
//     verdict          {"outcome", "list", "reason", "action"}
//                      outcome: "trusted" (by "list"); "let_go" or "not_judged" ("reason": "own_process",
//                      "no_image", "unreadable", "prelink_not_undone", "trusted_at_start",
//                      "out_of_scope"); "untrusted" ("action": "report" or "kill")
//     blocking         {"policy", "entries", "floor", "in_force"}: whether the policy asks for it, the
//                      entries that count and how many have to be exceeded (0 in directory mode)
//     notes            [TEXT…]: what else an operator should know
//
// What cannot be explained is {"error": TEXT}: no such process, no such file, not a regular file, a file
// that cannot be read, a script without its interpreter.
Json::Value ExplainProcess(std::int64_t pid);

// The path has to be absolute.
Json::Value ExplainFile(const std::string& path);

} // namespace Engine
