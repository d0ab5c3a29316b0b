#include "agent/daemon/Desired.h"

#include <cstring>

#include <json/value.h>

#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"

namespace Daemon {

namespace {

SDK::ModuleLog moduleLog("daemon");

constexpr std::uint64_t MAX_FILE_BYTES = 4096;

bool ReadWish(const std::string& path) {
    std::string text;
    if (const int error = SDK::FileUtils::ReadFile(path, text, MAX_FILE_BYTES); error != 0) {
        if (error != ENOENT) {
            moduleLog.Error("[%s] cannot be read, detection counts as not wished: %s", path, std::strerror(error));
        }
        return false;
    }
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(text, document) != 0 || !document.isObject() || !document["detect"].isBool()) {
        moduleLog.Error("[%s] is not of the form {\"detect\": true|false}, detection counts as not wished", path);
        return false;
    }
    return document["detect"].asBool();
}

} // namespace

Desired::Desired(std::string path) : mPath(std::move(path)), mDetect(ReadWish(mPath)) {}

bool Desired::IsDetectionWished() const {
    const SDK::ReadGuard guard(mLock);
    return mDetect;
}

void Desired::WishDetection(bool wished) {
    const SDK::WriteGuard guard(mLock);
    mDetect = wished;
    if (const int error = Save(); error != 0) {
        moduleLog.Error("[%s] cannot be written, the wish for detection is lost at the next stop unless it can be "
                        "until then: %s",
                        mPath, std::strerror(error));
    }
}

bool Desired::IsUnsaved() const {
    const SDK::ReadGuard guard(mLock);
    return mUnsaved;
}

void Desired::SaveAgain() {
    const SDK::WriteGuard guard(mLock);
    if (mUnsaved && Save() == 0) {
        moduleLog.Notice("[%s] is written after all, the wish for detection is kept", mPath);
    }
}

int Desired::Save() {
    Json::Value document(Json::objectValue);
    document["detect"] = mDetect;
    const std::string text = SDK::JsonUtils::JsonToString(document) + "\n";
    const int error = SDK::FileUtils::WriteFile(mPath, text, false);
    mUnsaved = error != 0;
    return error;
}

} // namespace Daemon
