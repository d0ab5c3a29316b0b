#include <memory>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "ConfigManager.h"
#include "WhitelistModule.h"
#include "WhitelistPolicy.h"
#include "ctl/policy/PolicyCheck.h"
#include "ctl/policy/PolicyTemplate.h"
#include "ctl/policy/PolicyText.h"
#include "support/LogRecorder.h"
#include "support/PolicyCases.h"
#include "support/TempRoot.h"

// The check knows the module's rules by itself: here both are asked about the same policies.

namespace {

using Ctl::PolicyProblem;
using Ctl::Severity;

bool HasError(const std::vector<PolicyProblem>& problems) {
    return std::any_of(problems.begin(), problems.end(),
                       [](const PolicyProblem& problem) { return problem.severity == Severity::ERROR; });
}

bool HasRefusal(const std::vector<PolicyProblem>& problems) {
    return std::any_of(problems.begin(), problems.end(), [](const PolicyProblem& problem) { return problem.refused; });
}

class PolicyAgreement : public testing::Test {
protected:
    PolicyAgreement() { EXPECT_EQ(module->Init(), 0); }

    bool ModuleRefuses(const std::string& text) {
        Framework::Policy* current = nullptr;
        return std::unique_ptr<Framework::Policy>(module->RefreshFeaturePolicy("10001", text, current)) == nullptr;
    }

    // Whether the module can use the settings and the task conditions, all of them.
    static bool ModuleUsesAll(const std::string& text) {
        return Engine::ConfigManager::Instance()->ParsePolicy(text.c_str()) &&
               Engine::WhitelistPolicy("whitelist_feature").Parse(text);
    }

    TestSupport::TempRoot root;
    TestSupport::TempDir watched;
    TestSupport::LogRecorder log;
    Poco::AutoPtr<Engine::WhitelistModule> module{new Engine::WhitelistModule};
};

TEST_F(PolicyAgreement, ThereIsAnErrorExactlyWhenTheModuleRefusesThePolicyOrAPartOfIt) {
    for (const TestSupport::PolicyCase& policy : TestSupport::MakePolicyCases(watched.Path(), "enabled")) {
        SCOPED_TRACE(policy.what);
        const std::vector<PolicyProblem> problems = Ctl::CheckPolicy(policy.text);
        const bool refused = ModuleRefuses(policy.text);
        EXPECT_EQ(HasRefusal(problems), refused);
        EXPECT_EQ(HasError(problems), refused || !ModuleUsesAll(policy.text));
    }
}

TEST_F(PolicyAgreement, TheModuleUsesAllOfTheStartingPoints) {
    for (const Ctl::PolicyMode mode : {Ctl::PolicyMode::GLOBAL, Ctl::PolicyMode::DIRECTORY}) {
        const std::string text = Ctl::StripComments(Ctl::MakePolicyTemplate(mode));
        EXPECT_FALSE(HasError(Ctl::CheckPolicy(text)));
        EXPECT_FALSE(ModuleRefuses(text));
        EXPECT_TRUE(ModuleUsesAll(text));
    }
}

} // namespace
