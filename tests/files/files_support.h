// Helpers of the file-layer tests: a scratch directory per test, in the
// UTF-8 locale the text conversions need, and the text of a library string.
#pragma once

#include <quenlib/sfile.h>

#include "text/text_support.h"

namespace quentest {

class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(locale_.ok()); }
  std::string at(char const* name) const { return scratch_ / name; }
  std::string const& dir = scratch_.path;

 private:
  TempDir scratch_;
  LocaleScope locale_{"C.UTF-8"};
};

}  // namespace quentest
