#include <memory>

#include "ctl/Client.h"
#include "ctl/Delivery.h"
#include "ctl/Document.h"
#include "ctl/Output.h"
#include "ctl/Verbs.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

void ApplyPolicy(const Context& context, const std::string& file) {
    const Json::Value answer = Client(context.root).Post("/policy", ReadDocument(file));
    PrintAccepted("policy accepted", answer);
}

// As JSON that can be applied again.
void ShowPolicy(const Context& context) {
    Json::Value document;
    SDK::JsonUtils::GetSubobjectValue(Client(context.root).Get("/policy"), "document", document);
    PrintJson(document);
    FlushOutput();
}

} // namespace

void AddPolicyVerbs(CLI::App& app, const Context& context) {
    CLI::App* policy = app.add_subcommand("policy", "Deliver or show the feature policy");
    policy->require_subcommand(1);

    const auto file = std::make_shared<std::string>();
    CLI::App* apply = policy->add_subcommand("apply", "Deliver a feature policy; says why when it is refused");
    apply->add_option("FILE", *file, "The policy document, - for standard input")->required();
    apply->callback([&context, file] { ApplyPolicy(context, *file); });

    CLI::App* show = policy->add_subcommand("show", "Print the policy in force, one line of JSON");
    show->callback([&context] { ShowPolicy(context); });
}

} // namespace Ctl
