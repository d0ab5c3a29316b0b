#pragma once

#include <string>

#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"
#include "system/Agent.h"
#include "system/WebServer.h"

namespace SystemTest {

// A preset list's entry for a file that there is.
inline Json::Value MakePresetEntry(const std::string& path) {
    Json::Value entry;
    entry["filename"] = path;
    entry["sha256"] = Sha256Of(path);
    entry["os"] = "debian";
    entry["version"] = "12";
    return entry;
}

// Delivers a preset list with one program through a web server, as the server would.
inline void SendPreset(Agent& agent, WebServer& server, const std::string& key, const std::string& program) {
    const std::string document = MakeListDocument({MakePresetEntry(program)});
    Json::Value command;
    command["url"] = server.Put(key, document);
    command["hash"] = Sha256Of(agent.Work().Write("document", document));
    const Result sent = agent.Command(key, SDK::JsonUtils::JsonToString(command));
    EXPECT_EQ(sent.status, 0) << sent.err;
}

} // namespace SystemTest
