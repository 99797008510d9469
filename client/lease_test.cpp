#include "client/lease.h"

#include <gtest/gtest.h>

#include <string>

TEST(Lease, CommandQuotesEveryWordAndKeepsTheOwnerOnOneLine) {
  std::string cmd = vesk_c_lease_command("take", "abc123", 2.2, " it's\nme\t now ", "t1 t2");
  EXPECT_EQ(cmd.substr(0, cmd.find('\n')),
            "set -- 'take' 'abc123' '3' 'it'\\''s me now' 't1 t2'");
  EXPECT_EQ(cmd.substr(cmd.find('\n') + 1), kLeaseScript);
  // an empty owner or token still fills its place; a ttl is a second at least
  std::string bare = vesk_c_lease_command("show", "", 0, "  ", "");
  EXPECT_EQ(bare.substr(0, bare.find('\n')), "set -- 'show' '-' '1' '-' ''");
}

TEST(Lease, ParsesTheScriptsLineAndTellsTheHolder) {
  vesk_c_lease_state s;
  ASSERT_TRUE(vesk_c_lease_parse("busy 0af3 1000 990 1050 ann@lab pid 7 gw1\n", &s));
  EXPECT_EQ(s.result, "busy");
  EXPECT_EQ(s.token, "0af3");
  EXPECT_EQ(s.now, 1000);
  EXPECT_EQ(s.taken, 990);
  EXPECT_EQ(s.expires, 1050);
  EXPECT_EQ(s.owner, "ann@lab pid 7 gw1");
  EXPECT_EQ(vesk_c_lease_holder_text(s), "ann@lab pid 7 gw1 (50 s left)");
  s.now = 2000;  // expired: nothing left
  EXPECT_EQ(vesk_c_lease_holder_text(s), "ann@lab pid 7 gw1 (0 s left)");

  ASSERT_TRUE(vesk_c_lease_parse("free - 1000 - - -", &s));
  EXPECT_EQ(s.token, "");
  EXPECT_EQ(s.taken, -1);
  EXPECT_EQ(s.owner, "");
  EXPECT_EQ(vesk_c_lease_holder_text(s), "an unknown holder");

  EXPECT_FALSE(vesk_c_lease_parse("took abc 1000 x 5 me", &s));
  EXPECT_FALSE(vesk_c_lease_parse("took abc 1000", &s));
  EXPECT_FALSE(vesk_c_lease_parse("", &s));
}

TEST(Lease, OwnTokensAreTheEnvironmentsPlainWords) {
  ::setenv(kLeaseTokenEnv, "ab12 x;rm  cd34 ", 1);
  EXPECT_EQ(vesk_c_lease_own_tokens(), "ab12 cd34");
  ::unsetenv(kLeaseTokenEnv);
  EXPECT_EQ(vesk_c_lease_own_tokens(), "");
  std::string t = vesk_c_lease_token();
  EXPECT_EQ(t.size(), 20u);
  EXPECT_NE(t, vesk_c_lease_token());
}
