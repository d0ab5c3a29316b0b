#include "ctl/preset/PresetDocument.h"

#include <cerrno>
#include <cstring>

#include "ctl/Failure.h"
#include "ctl/ListDocument.h"
#include "modules/TrustLists.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace Ctl::Preset {

namespace {

using Engine::TRUST_MAX_FILE_BYTES;
using SDK::JsonUtils;

// Why the entry can be none of a preset list; empty when it can.
std::string FindFault(const Json::Value& entry) {
    if (!entry.isObject()) {
        return "no object";
    }
    if (!IsDigest(JsonUtils::GetStringValue(entry, "sha256", ""))) {
        return "\"sha256\" is not 64 lowercase hexadecimal digits";
    }
    for (const char* key : {"filename", "os", "version"}) {
        if (entry.isMember(key) && !entry[key].isString()) {
            return std::string("\"") + key + "\" is no string";
        }
    }
    return "";
}

[[noreturn]] void Refuse(const std::string& name, const std::string& fault) {
    throw Failure("[" + name + "] is no preset list: " + fault);
}

} // namespace

std::string ToDocument(const std::vector<Entry>& entries) {
    Json::Value list(Json::arrayValue);
    for (const Entry& entry : entries) {
        Json::Value& object = list.append(Json::Value(Json::objectValue));
        object["filename"] = entry.filename;
        object["sha256"] = entry.sha256;
        object["os"] = entry.os;
        object["version"] = entry.version;
    }
    std::string text = ToListDocument(list);
    if (text.size() > TRUST_MAX_FILE_BYTES) {
        throw Failure("the document of " + std::to_string(entries.size()) + " entries has " +
                      std::to_string(text.size()) + " bytes, agents load " + std::to_string(TRUST_MAX_FILE_BYTES) +
                      " at most: build two, one to apply as --list os and one as --list service");
    }
    return text;
}

std::vector<Entry> FromDocument(const std::string& text, const std::string& name) {
    std::vector<Entry> entries;
    Json::ArrayIndex index = 0;
    for (const Json::Value& object : ParseListDocument(text, name)) {
        const std::string fault = FindFault(object);
        if (!fault.empty()) {
            Refuse(name, NameEntry(object, index, "filename") + ": " + fault);
        }
        entries.push_back({JsonUtils::GetStringValue(object, "filename", ""),
                           JsonUtils::GetStringValue(object, "sha256", ""), JsonUtils::GetStringValue(object, "os", ""),
                           JsonUtils::GetStringValue(object, "version", "")});
        ++index;
    }
    return entries;
}

std::string ReadPresetFile(const std::string& file) {
    std::string text;
    const int error = SDK::FileUtils::ReadFile(file, text, TRUST_MAX_FILE_BYTES);
    if (error == EFBIG) {
        throw Failure("[" + file + "] is larger than agents load, " + std::to_string(TRUST_MAX_FILE_BYTES) + " bytes");
    }
    if (error != 0) {
        throw Failure("cannot read [" + file + "]: " + std::strerror(error));
    }
    return text;
}

} // namespace Ctl::Preset
