// GUIDs: random version 4, both text forms, strict parsing, order, and
// Python's uuid module as the independent reader.
#include <quenlib/sguid.h>

#include <gtest/gtest.h>

#include <set>

#include "security_support.h"

using namespace QuenLibA500;
using namespace securitytest;

TEST(SGuid, RandomVersionFourInBothForms) {
  std::set<SGuid> seen;
  std::string plainList;
  for (int i = 0; i < 200; ++i) {
    SGuid const g = SGuid::Generate();
    EXPECT_EQ(g.Version(), 4);
    EXPECT_EQ(g.Bytes()[8] & 0xC0, 0x80);
    EXPECT_TRUE(seen.insert(g).second);
    SGuid back;
    ASSERT_TRUE(SGuid::Parse(g.ToString(), back));
    EXPECT_EQ(back, g);
    ASSERT_TRUE(SGuid::Parse(g.ToPlainString(), back));
    EXPECT_EQ(back, g);
    plainList += std::string(g.ToString().getString()) + " ";
  }
  // Python's uuid reads the braced form and sees version 4, variant RFC 4122.
  std::string const out = Shell(std::string(kPython) +
                              " -c 'import sys, uuid; print(all(uuid.UUID(t).version == 4 and "
                              "uuid.UUID(t).variant == uuid.RFC_4122 for t in sys.argv[1:]))' " +
                              plainList);
  EXPECT_EQ(out, "True\n");
}

TEST(SGuid, ParsesOnlyTheTwoForms) {
  SGuid g;
  ASSERT_TRUE(SGuid::Parse("{1B4E28BA-2FA1-41D2-883F-0016D3CCA427}", g));
  EXPECT_EQ(std::string(g.ToPlainString().getString()), "1b4e28ba-2fa1-41d2-883f-0016d3cca427");
  EXPECT_EQ(std::string(g.ToString().getString()), "{1B4E28BA-2FA1-41D2-883F-0016D3CCA427}");
  SGuid const kept = g;
  for (char const* bad : {"", "{1B4E28BA-2FA1-41D2-883F-0016D3CCA427", "1B4E28BA2FA141D2883F0016D3CCA427",
                          "{1B4E28BA-2FA1-41D2-883F-0016D3CCA42G}", "1b4e28ba-2fa1-41d2-883f-0016d3cca4270",
                          "1b4e28b-a2fa1-41d2-883f-0016d3cca427", "(1B4E28BA-2FA1-41D2-883F-0016D3CCA427)"}) {
    EXPECT_FALSE(SGuid::Parse(bad, g)) << bad;
    EXPECT_EQ(g, kept);
  }
  SGuid low;
  SGuid high;
  SGuid::Parse("00000000-0000-4000-8000-000000000001", low);
  SGuid::Parse("00000000-0000-4000-8000-000000000100", high);
  EXPECT_LT(low, high);
  EXPECT_TRUE(SGuid().IsNull());
}
