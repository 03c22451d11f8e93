// The escape tables are built on first use; four threads racing to that
// first use (and then encoding, decoding and matching on their own
// objects) must all see complete tables. Also runs under ThreadSanitizer.
#include <gtest/gtest.h>
#include <quenlib/nvpairs.h>
#include <quenlib/qrysstring.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace QuenLibA500;

TEST(UrlEncodeConcurrent, FirstUseFromFourThreads) {
  std::atomic<int> ready{0};
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      ready.fetch_add(1);
      while (ready.load() < 4) {
      }
      for (int i = 0; i < 500; ++i) {
        std::string text = "a b-c~d," + std::to_string(t * 1000 + i);
        SAnsiString enc = CNameValuePairs::URLStrEncode(text.c_str());
        SAnsiString dec = CNameValuePairs::URLStrDecode(enc);
        if (std::string(dec.getString(), dec.getLength()) != text) failures.fetch_add(1);
        SAsciiString t3;
        CNameValuePairs::URLStrEncodeAppend3(t3, u"x,y");
        if (std::string(t3.getString()) != "x%2Cy") failures.fetch_add(1);
        CMapNameValuePair map;
        if (!map.ParseParameter(SAnsiString(("k=" + std::to_string(i)).c_str()))) failures.fetch_add(1);
        if (!SQueryString("a%D,%").like(text.c_str())) failures.fetch_add(1);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
}
