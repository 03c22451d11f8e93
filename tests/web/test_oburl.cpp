// Object URLs: parsing and writing, date-time properties and arrays.
#include "web_support.h"
#include <quenlib/oburl.h>

#include <cmath>
#include <limits>
#include <random>

using namespace QuenLibA500;

namespace {

using QuietAsserts = quentest::AssertLog;

}  // namespace

TEST(ObUrl, ParseAndWrite) {
  CObUrl url(SAnsiString("rpt?id=5&Name=a+b"));
  EXPECT_EQ(quentest::str(url.GetProtocol()), "object");
  EXPECT_EQ(quentest::str(url.GetObjectUrl()), "rpt");
  SAnsiString v;
  ASSERT_TRUE(url.GetPropString("NAME", v));
  EXPECT_EQ(quentest::str(v), "a b");
  EXPECT_EQ(quentest::str(url.MakeURL()), "rpt?id=5&Name=a+b");
  EXPECT_EQ(quentest::str(url.MakeURLA()), "rpt?id=5&Name=a+b");

  CObUrl bare(SAnsiString("id=5"));
  EXPECT_EQ(quentest::str(bare.GetObjectUrl()), "");
  EXPECT_EQ(quentest::str(bare.MakeURL()), "id=5");

  CObUrl empty;
  empty.SetObjectUrl("obj");
  EXPECT_EQ(quentest::str(empty.MakeURL()), "obj?");
  CObUrl none;
  EXPECT_EQ(quentest::str(none.MakeURL()), "");
}

TEST(ObUrl, DateTimes) {
  CObUrl url;
  url.SetPropDateTime("at", SDateTime(1970, 1, 1, 0, 0, 1, 0, STimeZone::TZ_UTC()));
  SAnsiString text;
  url.GetPropString("at", text);
  EXPECT_EQ(quentest::str(text), "1000");
  SDateTime before(1969, 12, 31, 23, 59, 59, 500, STimeZone::TZ_UTC());
  url.SetPropDateTime("old", before);
  url.GetPropString("old", text);
  EXPECT_EQ(quentest::str(text), "-500");
  SDateTime got;
  ASSERT_TRUE(url.GetPropDateTime("old", got));
  EXPECT_TRUE(got == before);
  url.SetPropDateTime("invalid", SDateTime());
  url.GetPropString("invalid", text);
  EXPECT_EQ(quentest::str(text), "");
  got = before;
  EXPECT_TRUE(url.GetPropDateTime("invalid", got));
  EXPECT_FALSE(got.IsValid());
  url.SetPropString("junk", "abc");
  got = before;
  EXPECT_TRUE(url.GetPropDateTime("junk", got));
  EXPECT_FALSE(got.IsValid());
  EXPECT_FALSE(url.GetPropDateTime("missing", got));
}

TEST(ObUrl, Arrays) {
  CObUrl url;
  SIArray<SAnsiString> names{"first", "a b&c=d", ""};
  url.SetPropStringArray("names", &names);
  SAnsiString text;
  url.GetPropString("names", text);
  EXPECT_EQ(quentest::str(text), "0=first&1=a+b%26c%3Dd&2=");
  SIArray<SAnsiString> back{"stale"};
  ASSERT_TRUE(url.GetPropStringArray("NAMES", &back));
  EXPECT_TRUE(back == names);
  EXPECT_FALSE(url.GetPropStringArray("names", nullptr));

  SIArray<DWORD> nums{1, 4294967295u, 0};
  url.SetPropDWordArray("n", &nums);
  url.GetPropString("n", text);
  EXPECT_EQ(quentest::str(text), "0=1&1=4294967295&2=0");
  SIArray<DWORD> numsBack;
  ASSERT_TRUE(url.GetPropDWordArray("n", &numsBack));
  EXPECT_TRUE(numsBack == nums);
  EXPECT_FALSE(url.GetPropDWordArray("names", &numsBack));

  // The nested text is encoded once more in the written URL, and comes
  // back whole.
  CObUrl again(url.MakeURL());
  SIArray<SAnsiString> viaText;
  ASSERT_TRUE(again.GetPropStringArray("names", &viaText));
  EXPECT_TRUE(viaText == names);
}
