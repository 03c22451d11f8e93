// quen int and quen tok end to end: what they print and their exit
// statuses.
#include "text_support.h"

namespace {

using QuenIntTok = quentest::QuenTest;

TEST_F(QuenIntTok, Commands) {
  struct Case {
    char const* args;
    int status;
    char const* out;
  } const cases[] = {
      {"int --radix 16 ff 0x1F FG", 1, "\"ff\"\tok\t255\tFF\n\"0x1F\"\tok\t31\t1F\n\"FG\"\tfailed\t0\t0\n"},
      {"int 2147483647 -2147483648", 0,
       "\"2147483647\"\tok\t2147483647\t2147483647\n\"-2147483648\"\tok\t-2147483648\t-2147483648\n"},
      {"int 2147483648", 1, "\"2147483648\"\tfailed\t0\t0\n"},
      {"int --type uint32 -- -5", 1, "\"-5\"\tfailed\t0\t0\n"},
      {"int --type int64 9223372036854775807", 0,
       "\"9223372036854775807\"\tok\t9223372036854775807\t9223372036854775807\n"},
      {"int 3.9 '12 34' ''", 0, "\"3.9\"\tok\t3\t3\n\"12 34\"\tok\t12\t12\n\"\"\tok\t0\t0\n"},
      {"int --form iterator --radix 16 0x1F", 1, "\"0x1F\"\tfailed\t0\t0\n"},
      {"int --form iterator '12 34'", 1, "\"12 34\"\tfailed\t0\t0\n"},
      {"int --form neutral 42", 0, "\"42\"\tok\t42\t42\n"},
      {"int --to-text --radix 16 -- -1 255", 0, "-1\tFFFFFFFF\n255\tFF\n"},
      {"int --to-text --type int16 --radix 16 -- -1", 0, "-1\tFFFF\n"},
      {"int --to-text --type int8 --radix 2 -- 300", 1, ""},
      {"int --type ptr 7ffd1234abcd", 0, "\"7ffd1234abcd\"\tok\t140724908895181\t7FFD1234ABCD\n"},
      {"int --radix 1 5", 2, ""},
      {"int --type float 5", 2, ""},
      {"int --form neutral --radix 16 5", 2, ""},
      {"tok --delim , a,b,,c", 0, "1\t\"a\"\n2\t\"b\"\n3\t\"\"\n4\t\"c\"\n"},
      {"tok --delim :: a::b:c", 0, "1\t\"a\"\n2\t\"b:c\"\n"},
      {"tok --delim , ''", 0, ""},
      {"tok --right --delim '&' 'x=1&y=2&z=3'", 0,
       "RSStrTok::RightStr\t\"y=2\"\trest\t\"z=3\"\nSStrTok::RightStr\t\"y=2&z=3\"\trest\t\"y=2&z=3\"\n"},
      {"tok -d \xC3\xA9 a\xC3\xA9" "b\xC3\xA9\xC3\xA9", 0, "1\t\"a\"\n2\t\"b\"\n3\t\"\"\n"},
  };
  for (Case const& c : cases) {
    quentest::QuenRun r = quentest::RunQuen(c.args, "LC_ALL=C.UTF-8", false);
    EXPECT_EQ(r.status, c.status) << c.args;
    EXPECT_EQ(r.out, c.out) << c.args;
  }
}

}  // namespace
