#include "TrustExplanation.h"

#include <limits>

#include "ConfigManager.h"
#include "ExplainedProgram.h"
#include "OperatorTerms.h"
#include "ProcessManager.h"
#include "SpecifiedFileAudit.h"
#include "sdk/FileUtils.h"
#include "sdk/PathUtils.h"
#include "utils/ElfSections.h"

namespace Engine {

namespace {

using Reason = ListOpinion::Reason;

const ProcessManager& Manager() {
    return *ProcessManager::Instance();
}

Json::Value MakeError(const std::string& text) {
    Json::Value answer(Json::objectValue);
    answer["error"] = text;
    return answer;
}

Json::Value TextOrNull(const std::string& text) {
    return text.empty() ? Json::Value() : Json::Value(text);
}

// ---- The lists -------------------------------------------------------------------------------------

ListOpinion Ask(ProcessManager::TrustSource list, const ExplainedProgram& program) {
    if (!program.directoryMode) {
        return Manager().AskList(list, program.examination.digest, program.image);
    }
    ProcessInfo judged = program.record;
    SpecifiedFileAudit::MatchByContent(judged);
    return Manager().AskList(list, judged);
}

const char* NameReason(ProcessManager::TrustSource list, Reason reason) {
    switch (reason) {
    case Reason::VOUCHED_FOR:
        return "vouched_for";
    case Reason::OTHER_DIGEST:
        return "other_digest";
    case Reason::OTHER_KIND:
        return "other_kind";
    case Reason::OTHER_PATH:
        return "other_path";
    case Reason::UNKNOWN:
        break;
    }
    return list == ProcessManager::SOURCE_LOCAL    ? "unknown_path"
           : list == ProcessManager::SOURCE_SERVER ? "unknown_name"
                                                   : "unknown_digest";
}

// A preset list is asked by the digest alone; an operator also wants to see the entry of a file that has
// another content by now.
ListOpinion LookForOlderContent(ProcessManager::TrustSource list, const ExplainedProgram& program,
                                ListOpinion opinion) {
    const bool isPreset = list == ProcessManager::SOURCE_OS_PRESET || list == ProcessManager::SOURCE_SERVICE_PRESET;
    if (!isPreset || opinion.reason != Reason::UNKNOWN) {
        return opinion;
    }
    opinion.presetEntry = Manager().FindPresetNaming(list, program.directoryMode ? program.record.path : program.image);
    if (opinion.presetEntry) {
        opinion.reason = Reason::OTHER_DIGEST;
    }
    return opinion;
}

Json::Value DescribeNearestEntry(const ListOpinion& opinion) {
    if (opinion.entry) {
        return DescribeEntry(*opinion.entry);
    }
    return opinion.presetEntry ? DescribePresetEntry(*opinion.presetEntry) : Json::Value();
}

// Sets `deciding` to the first list that vouches.
Json::Value AskLists(const ExplainedProgram& program, int& deciding) {
    Json::Value lists(Json::arrayValue);
    for (const ProcessManager::TrustSource list : ProcessManager::LIST_ORDER) {
        Json::Value& answer = lists.append(Json::Value(Json::objectValue));
        answer["list"] = GetListName(list);
        answer["vouches"] = false;
        answer["reason"] = "not_asked";
        answer["entry"] = Json::nullValue;
        if (program.IsLookedUp()) {
            const ListOpinion opinion = LookForOlderContent(list, program, Ask(list, program));
            answer["vouches"] = opinion.Vouches();
            answer["reason"] = NameReason(list, opinion.reason);
            answer["entry"] = DescribeNearestEntry(opinion);
            deciding = deciding == 0 && opinion.Vouches() ? list : deciding;
        }
    }
    return lists;
}

// ---- The verdict -----------------------------------------------------------------------------------

const char* NameExemption(Exemption exemption) {
    switch (exemption) {
    case Exemption::NO_IMAGE:
        return "no_image";
    case Exemption::OWN_PROCESS:
        return "own_process";
    case Exemption::UNREADABLE:
        return "unreadable";
    case Exemption::PRELINK_NOT_UNDONE:
        return "prelink_not_undone";
    case Exemption::TRUSTED_AT_START:
        return "trusted_at_start";
    case Exemption::NONE:
        break;
    }
    return "";
}

Json::Value DescribeVerdict(const ExplainedProgram& program, int deciding) {
    Json::Value verdict(Json::objectValue);
    verdict["list"] = GetListName(0);
    verdict["reason"] = Json::nullValue;
    verdict["action"] = "none";
    if (!program.inScope) {
        verdict["outcome"] = "not_judged";
        verdict["reason"] = "out_of_scope";
    } else if (program.examination.exemption != Exemption::NONE) {
        verdict["outcome"] = "let_go";
        verdict["reason"] = NameExemption(program.examination.exemption);
    } else if (deciding != 0) {
        verdict["outcome"] = "trusted";
        verdict["list"] = GetListName(deciding);
    } else {
        verdict["outcome"] = "untrusted";
        verdict["action"] = IsBlockingInForce(program.directoryMode) ? "kill" : "report";
    }
    return verdict;
}

// ---- The whole -------------------------------------------------------------------------------------

void DescribeImage(const ExplainedProgram& program, Json::Value& answer) {
    const bool isScript = program.record.type == MATCH_PATH;
    std::int64_t size = 0;
    const bool sized = !program.image.empty() && SDK::FileUtils::GetFileSize(program.image, size) == 0;
    answer["pid"] = program.pid == 0 ? Json::Value() : Json::Value(program.pid);
    answer["file"] = TextOrNull(program.file);
    answer["image"] = TextOrNull(program.image);
    answer["name"] = TextOrNull(SDK::PathUtils::GetFileNameFromPath(program.image));
    answer["size"] = sized ? Json::Value(Json::Int64{size}) : Json::Value();
    answer["digest"] = TextOrNull(program.examination.digest);
    answer["prelinked"] = program.image.empty() ? Json::Value() : Json::Value(program.examination.prelinked);
    answer["interpreter"] = program.interpreter;
    answer["script"] = Json::nullValue;
    if (!program.script.empty()) {
        answer["script"]["path"] = program.script;
        answer["script"]["digest"] = program.interpreter ? TextOrNull(program.record.hash) : Json::Value();
    }
    answer["type"] = program.image.empty() ? Json::Value() : Json::Value(isScript ? MATCH_PATH : MATCH_HASH);
    answer["kind"] = program.image.empty() ? Json::Value() : Json::Value(isScript ? "script" : "image");
    answer["in_scope"] = program.pid == 0 ? Json::Value() : Json::Value(program.inScope);
}

Json::Value DescribeJudged(const ExplainedProgram& program) {
    Json::Value judged(Json::objectValue);
    const bool byRecord = program.directoryMode;
    const std::string& path = byRecord ? program.record.path : program.image;
    judged["path"] = TextOrNull(path);
    judged["name"] = TextOrNull(byRecord ? program.record.name : SDK::PathUtils::GetFileNameFromPath(path));
    judged["hash"] = TextOrNull(byRecord ? program.record.hash : program.examination.digest);
    if (byRecord) {
        judged["type"] = MATCH_HASH;
    }
    return judged;
}

bool IsProgram(const std::string& image) {
    using utils::elf::SectionSearch;
    return utils::elf::FindSectionOfType(image, 0) != SectionSearch::NotElf;
}

Json::Value MakeNotes(const ExplainedProgram& program, int deciding) {
    Json::Value notes(Json::arrayValue);
    if (!Manager().AreListsLoaded()) {
        notes.append("the lists are not loaded: no policy has started the module yet");
    }
    if (program.directoryMode) {
        notes.append("directory mode: a process is judged when it opens or changes a watched file");
    } else if (program.interpreter) {
        notes.append("global detection judges the image of the interpreter, not the script that it runs; an alert "
                     "names the script");
    }
    if (!program.script.empty() && !program.interpreter) {
        notes.append("the script is started by a program that is not known as an interpreter: that program is "
                     "judged, and so is whatever it starts");
    }
    if (program.pid == 0 && !IsProgram(program.image)) {
        notes.append("neither an ELF image nor a script with an interpreter line: it starts no process by itself");
    }
    if (deciding == 0 && Manager().IsNewlyLearned(program.record.path)) {
        notes.append("learned since full_proc_task ran last, and not moved to the local list yet");
    }
    if (program.directoryMode && deciding > ProcessManager::SOURCE_LOCAL) {
        notes.append("detection would adopt it into the local list");
    }
    return notes;
}

Json::Value Explain(const ExplainedProgram& program) {
    Json::Value answer(Json::objectValue);
    const std::int64_t mod = ConfigManager::Instance()->GetMod();
    int deciding = 0;
    DescribeImage(program, answer);
    answer["mode"] = Json::Int64{mod};
    answer["mode_name"] = GetModName(mod);
    answer["directory_mode"] = program.directoryMode;
    answer["judged"] = DescribeJudged(program);
    answer["lists"] = AskLists(program, deciding);
    answer["verdict"] = DescribeVerdict(program, deciding);
    answer["blocking"] = DescribeBlocking(program.directoryMode);
    answer["notes"] = MakeNotes(program, deciding);
    return answer;
}

} // namespace

Json::Value ExplainProcess(std::int64_t pid) {
    ExplainedProgram program(ConfigManager::Instance()->GetDirMod());
    const bool fits = pid <= std::numeric_limits<int>::max();
    const std::string problem =
        fits ? program.FindProcess(static_cast<int>(pid)) : "there is no process " + std::to_string(pid);
    return problem.empty() ? Explain(program) : MakeError(problem);
}

Json::Value ExplainFile(const std::string& path) {
    ExplainedProgram program(ConfigManager::Instance()->GetDirMod());
    const std::string problem = program.FindFile(path);
    return problem.empty() ? Explain(program) : MakeError(problem);
}

} // namespace Engine
