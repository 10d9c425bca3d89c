// The rule every end-to-end test follows where it cannot isolate itself:
// skip on a developer's machine, fail in CI.
#include <gtest/gtest.h>

#include "tests/e2e/E2eSupport.h"

namespace {

using keeltest::DecideIsolation;
using keeltest::IsolationVerdict;

TEST(Isolation, RunsWhereANamespaceCanBeMade) {
  EXPECT_EQ(DecideIsolation(true, nullptr), IsolationVerdict::kRun);
  EXPECT_EQ(DecideIsolation(true, "true"), IsolationVerdict::kRun);
}

TEST(Isolation, SkipsWhereRefusedOutsideCi) {
  EXPECT_EQ(DecideIsolation(false, nullptr), IsolationVerdict::kSkip);
  EXPECT_EQ(DecideIsolation(false, ""), IsolationVerdict::kSkip);
  EXPECT_EQ(DecideIsolation(false, "false"), IsolationVerdict::kSkip);
}

TEST(Isolation, FailsWhereRefusedInCi) {
  EXPECT_EQ(DecideIsolation(false, "true"), IsolationVerdict::kFail);
}

}  // namespace
