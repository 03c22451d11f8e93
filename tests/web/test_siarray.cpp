// SIArray: growth, insertion, removal, iteration.
#include <quenlib/siarray.h>

#include <gtest/gtest.h>

#include <string>

using QuenLibA500::SIArray;

TEST(SIArray, AddInsertRemoveKeepOrder) {
  SIArray<std::string> a;
  EXPECT_TRUE(a.IsEmpty());
  EXPECT_EQ(a.Add("b"), 0);
  EXPECT_EQ(a.Add("d"), 1);
  a.InsertAt(0, "a");
  a.InsertAt(2, "c");
  a.InsertAt(a.GetSize(), "e");
  ASSERT_EQ(a.GetSize(), 5);
  std::string joined;
  for (auto const& s : a) joined += s;
  EXPECT_EQ(joined, "abcde");
  a.RemoveAt(1, 2);
  EXPECT_EQ(a.GetSize(), 3);
  EXPECT_EQ(a[0], "a");
  EXPECT_EQ(a[1], "d");
  EXPECT_EQ(a.Find("e"), 2);
  EXPECT_EQ(a.Find("zz"), -1);
  a.SetAt(0, "z");
  EXPECT_EQ(a.GetAt(0), "z");
  a.RemoveAll();
  EXPECT_EQ(a.GetSize(), 0);
}
