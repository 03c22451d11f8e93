// Helpers of the web tests: the shared text helpers, the text of the
// string flavours, and a fixture running in the C.UTF-8 locale.
#pragma once

#include "text/text_support.h"

namespace quentest {

inline std::string str(QuenLibA500::SAsciiString const& s) { return std::string(s.getString(), s.getLength()); }
inline std::u16string wstr(QuenLibA500::SWCharString const& s) { return std::u16string(s.getString(), s.getLength()); }

class Utf8Test : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(locale_.ok()); }

 private:
  LocaleScope locale_{"C.UTF-8"};
};

}  // namespace quentest
