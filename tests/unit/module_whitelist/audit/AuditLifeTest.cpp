#include <gtest/gtest.h>

#include "SpecifiedFileAudit.h"
#include "unit/module_whitelist/shell/RefusingAllocator.h"

namespace AuditTest {

namespace {

using Engine::SpecifiedFileAudit;
using ShellTest::Refusing;

constexpr std::size_t SCRATCH_BYTES = 4096;

class AuditLife : public ::testing::Test {
protected:
    SpecifiedFileAudit& audit = SpecifiedFileAudit::Instance();
    int owner = 0;
};

} // namespace

TEST_F(AuditLife, IsTheSameForEverybody) {
    EXPECT_EQ(&SpecifiedFileAudit::Instance(), &audit);
}

TEST_F(AuditLife, InitNeedsAnOwner) {
    EXPECT_FALSE(audit.Init(nullptr));
    EXPECT_TRUE(audit.Init(&owner));
    EXPECT_FALSE(audit.Init(nullptr));
}

TEST_F(AuditLife, InitNeedsMemory) {
    {
        const Refusing refusing(Refusing::Form::NonThrowing, SCRATCH_BYTES);
        EXPECT_FALSE(audit.Init(&owner));
    }
    EXPECT_TRUE(audit.Init(&owner));
}

TEST_F(AuditLife, WorksBeforeInitAndAfterDeinit) {
    EXPECT_NE(audit.GetInodeCacheEntry(1, "/a"), nullptr);
    EXPECT_TRUE(audit.Init(&owner));
    EXPECT_NE(audit.GetInodeCacheEntry(2, "/b"), nullptr);
    audit.Deinit();
    audit.Deinit();
    EXPECT_NE(audit.GetInodeCacheEntry(3, "/c"), nullptr);
    EXPECT_EQ(audit.GetInodeCacheEntry(1, "/a")->hits, 2U);
    EXPECT_TRUE(audit.Init(&owner));
}

} // namespace AuditTest
