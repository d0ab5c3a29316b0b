#include "ctl/policy/PolicyReference.h"

#include <array>
#include <cstdio>
#include <memory>

#include <gtest/gtest.h>

#include "ctl/policy/PolicyCheck.h"
#include "ctl/policy/PolicyKeys.h"
#include "support/TempRoot.h"

namespace {

using TestSupport::TempDir;

const std::string MARKDOWN_FILE = SOURCE_DIR "/docs/policy.md";
const std::string MAN_FILE = SOURCE_DIR "/packaging/man/corvalent-policy.5";

// What stands in the file between the two lines.
std::string Between(const std::string& file, const std::string& begin, const std::string& end) {
    const std::string text = TempDir::ReadText(file);
    const std::size_t first = text.find(begin + "\n");
    const std::size_t last = text.find(end + "\n");
    if (first == std::string::npos || last == std::string::npos) {
        return "<no such lines in " + file + ">";
    }
    const std::size_t start = first + begin.size() + 1;
    return text.substr(start, last - start);
}

// What the program says on both of its outputs.
std::string OutputOf(const std::string& commandLine) {
    const std::unique_ptr<FILE, int (*)(FILE*)> output(popen((commandLine + " 2>&1").c_str(), "r"), pclose);
    std::string text;
    std::array<char, 4096> chunk{};
    while (output && fgets(chunk.data(), chunk.size(), output.get()) != nullptr) {
        text += chunk.data();
    }
    return text;
}

TEST(PolicyReference, TheMarkdownPageHasTheTableOfKeys) {
    EXPECT_EQ(Between(MARKDOWN_FILE, "<!-- keys: begin -->", "<!-- keys: end -->"), Ctl::MakeMarkdownReference())
        << "corvalentctl policy reference markdown prints it";
}

TEST(PolicyReference, TheManPageHasTheTableOfKeys) {
    EXPECT_EQ(Between(MAN_FILE, ".\\\" keys: begin", ".\\\" keys: end"), Ctl::MakeManReference())
        << "corvalentctl policy reference man prints it";
}

TEST(PolicyReference, TheManPageIsFormattedWithoutAWarningAndNamesEveryKey) {
    EXPECT_EQ(OutputOf("groff -man -ww -z " + MAN_FILE), "");
    const std::string page = OutputOf("groff -man -Tascii -P-cbu -rLL=200n " + MAN_FILE);
    for (const Ctl::PolicyKey& key : Ctl::GetPolicyKeys()) {
        EXPECT_NE(page.find(key.pointer), std::string::npos) << key.pointer;
    }
}

TEST(PolicyReference, TheExamplesOfTheMarkdownPageAreUsable) {
    const std::string begin = "```json\n{\"module_name\"";
    const std::string page = TempDir::ReadText(MARKDOWN_FILE);
    int examples = 0;
    for (std::size_t at = page.find(begin); at != std::string::npos; at = page.find(begin, at + 1)) {
        const std::size_t start = page.find('{', at);
        for (const Ctl::PolicyProblem& problem :
             Ctl::CheckPolicy(page.substr(start, page.find("```", start) - start))) {
            // A host may have no such directory.
            EXPECT_TRUE(problem.pointer.starts_with("/content/dirs")) << problem.pointer << ": " << problem.reason;
        }
        ++examples;
    }
    EXPECT_EQ(examples, 2);
}

TEST(PolicyReference, TextIsEscapedForEitherForm) {
    EXPECT_NE(Ctl::MakeMarkdownReference().find("without / \" \\* \\| < > or a dot"), std::string::npos);
    EXPECT_NE(Ctl::MakeManReference().find("{\\(dqperiod\\(dq: SECONDS}"), std::string::npos);
}

} // namespace
