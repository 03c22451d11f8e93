// Compression: round trips in both formats, damaged and hostile input,
// files, and Python's zlib and gzip modules reading ours and writing theirs.
#include <quenlib/scompression.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

#include "text/text_support.h"

using namespace QuenLibA500;
using quentest::ReadFile;
using quentest::TempDir;
using quentest::WriteFile;

namespace {

SSimpleBuffer Buffer(std::string const& s) {
  SSimpleBuffer b;
  b.append(reinterpret_cast<unsigned char const*>(s.data()), static_cast<unsigned>(s.size()));
  return b;
}

std::string Text(SSimpleBuffer const& b) {
  return std::string(reinterpret_cast<char const*>(static_cast<unsigned char const*>(b)), b.getNBytes());
}

// Text that compresses, with enough noise to need several output blocks.
std::string Sample(size_t size) {
  std::mt19937 rng(7);
  std::string s;
  while (s.size() < size) s += "line " + std::to_string(rng() % 1000) + " of the sample\n";
  s.resize(size);
  return s;
}

bool RunPython(std::string const& code) {
  std::string const cmd = "timeout 60 python3 -c '" + code + "'";
  return std::system(cmd.c_str()) == 0;
}

}  // namespace

class CompressionRoundTrip : public ::testing::TestWithParam<std::tuple<SCompression::Format, int, size_t>> {};

TEST_P(CompressionRoundTrip, DecompressesToTheOriginal) {
  auto const [format, level, size] = GetParam();
  std::string const original = Sample(size);
  SCompression z(format, level);
  SSimpleBuffer packed, unpacked;
  ASSERT_TRUE(z.compress(Buffer(original), packed)) << z.getReason().getString();
  if (format == SCompression::fmtGzip) {
    ASSERT_GE(packed.getNBytes(), 2u);
    EXPECT_EQ(static_cast<unsigned char const*>(packed)[0], 0x1f);
  }
  SCompression reader;  // recognises either format by its header
  ASSERT_TRUE(reader.decompress(packed, unpacked)) << reader.getReason().getString();
  EXPECT_EQ(Text(unpacked), original);
}

INSTANTIATE_TEST_SUITE_P(
    FormatsLevelsSizes, CompressionRoundTrip,
    ::testing::Values(std::make_tuple(SCompression::fmtZlib, -1, size_t{0}),
                      std::make_tuple(SCompression::fmtZlib, 9, size_t{1}),
                      std::make_tuple(SCompression::fmtZlib, 0, size_t{200000}),
                      std::make_tuple(SCompression::fmtGzip, 1, size_t{0}),
                      std::make_tuple(SCompression::fmtGzip, 6, size_t{300000})));

TEST(Compression, DamagedInputFailsWithAReasonNeverACrash) {
  std::string const original = Sample(100000);
  SCompression z(SCompression::fmtGzip);
  SSimpleBuffer packed, out;
  ASSERT_TRUE(z.compress(Buffer(original), packed));
  std::string const bytes = Text(packed);

  struct Case {
    std::string input;
    SCompression::Status status;
  } const cases[] = {
      {"", SCompression::stTruncated},
      {bytes.substr(0, bytes.size() / 2), SCompression::stTruncated},
      {bytes.substr(0, bytes.size() - 1), SCompression::stTruncated},
      {"plain text, not compressed", SCompression::stCorrupt},
      {bytes.substr(0, 10) + std::string(50, '\xff') + bytes.substr(60), SCompression::stCorrupt},
      {bytes.substr(0, bytes.size() - 8) + "\1\2\3\4" + bytes.substr(bytes.size() - 4), SCompression::stCorrupt},
  };
  for (auto const& c : cases) {
    SCompression reader;
    EXPECT_FALSE(reader.decompress(Buffer(c.input), out)) << c.input.size();
    EXPECT_EQ(reader.getStatus(), c.status) << reader.getReason().getString();
    EXPECT_FALSE(reader.getReason().isEmpty());
    EXPECT_EQ(out.getNBytes(), 0u);
  }
  SCompression reader;
  EXPECT_FALSE(reader.decompress(Buffer(bytes.substr(0, 20)), out));
  EXPECT_STREQ(reader.getReason().getString(),
               "truncated input: the input ends inside the compressed stream");
}

TEST(Compression, TheOutputLimitStopsABomb) {
  SCompression z(SCompression::fmtZlib, 9);
  SSimpleBuffer packed, out;
  ASSERT_TRUE(z.compress(Buffer(std::string(20 << 20, '\0')), packed));
  EXPECT_LT(packed.getNBytes(), 64u * 1024);
  SCompression reader;
  reader.setOutputLimit(1 << 20);
  EXPECT_FALSE(reader.decompress(packed, out));
  EXPECT_EQ(reader.getStatus(), SCompression::stTooLarge);
  reader.setOutputLimit(20 << 20);
  EXPECT_TRUE(reader.decompress(packed, out));
  EXPECT_EQ(out.getNBytes(), 20u << 20);
}

TEST(Compression, GzipMembersConcatenateAndZlibRefusesTrailingData) {
  SCompression gz(SCompression::fmtGzip), zl(SCompression::fmtZlib);
  SSimpleBuffer a, b, out;
  ASSERT_TRUE(gz.compress(Buffer("first "), a));
  ASSERT_TRUE(gz.compress(Buffer("second"), b));
  EXPECT_TRUE(gz.decompress(Buffer(Text(a) + Text(b)), out));
  EXPECT_EQ(Text(out), "first second");
  // One buffer as both input and output, larger than a block each way.
  std::string const big = Sample(2 << 20);
  SSimpleBuffer inPlace;
  ASSERT_TRUE(gz.compress(Buffer(big), inPlace));
  ASSERT_GT(inPlace.getNBytes(), 128u * 1024);
  EXPECT_TRUE(gz.decompress(inPlace, inPlace)) << gz.getReason().getString();
  EXPECT_EQ(Text(inPlace), big);
  ASSERT_TRUE(zl.compress(Buffer("once"), a));
  EXPECT_FALSE(zl.decompress(Buffer(Text(a) + "x"), out));
  EXPECT_EQ(zl.getStatus(), SCompression::stCorrupt);
}

TEST(Compression, FilesStreamAndAFailureLeavesNoOutput) {
  TempDir dir;
  std::string const original = Sample(1 << 20);
  WriteFile(dir / "in", original);
  SCompression z(SCompression::fmtGzip);
  ASSERT_TRUE(z.compressFile((dir / "in").c_str(), (dir / "in.gz").c_str()));
  ASSERT_TRUE(z.decompressFile((dir / "in.gz").c_str(), (dir / "back").c_str()));
  EXPECT_EQ(ReadFile(dir / "back"), original);

  WriteFile(dir / "cut.gz", ReadFile(dir / "in.gz").substr(0, 1000));
  EXPECT_FALSE(z.decompressFile((dir / "cut.gz").c_str(), (dir / "cut").c_str()));
  EXPECT_EQ(z.getStatus(), SCompression::stTruncated);
  EXPECT_FALSE(std::filesystem::exists(dir / "cut"));
  EXPECT_FALSE(z.compressFile((dir / "missing").c_str(), (dir / "x").c_str()));
  EXPECT_EQ(z.getStatus(), SCompression::stIoError);
  EXPECT_NE(std::string(z.getReason().getString()).find("missing"), std::string::npos);
}

TEST(Compression, PythonReadsOursAndWeReadPythons) {
  if (std::system("python3 -c 'import zlib, gzip' >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "python3 with zlib and gzip is not installed";
  TempDir dir;
  std::string const original = Sample(150000);
  WriteFile(dir / "plain", original);
  SCompression gz(SCompression::fmtGzip), zl(SCompression::fmtZlib);
  ASSERT_TRUE(gz.compressFile((dir / "plain").c_str(), (dir / "ours.gz").c_str()));
  ASSERT_TRUE(zl.compressFile((dir / "plain").c_str(), (dir / "ours.z").c_str()));
  std::string const d = dir / "";
  ASSERT_TRUE(RunPython("import gzip, zlib; d=\"" + d + "\"; p=open(d+\"plain\",\"rb\").read();"
                        "assert gzip.decompress(open(d+\"ours.gz\",\"rb\").read()) == p;"
                        "assert zlib.decompress(open(d+\"ours.z\",\"rb\").read()) == p;"
                        "open(d+\"theirs.gz\",\"wb\").write(gzip.compress(p, 9));"
                        "open(d+\"theirs.z\",\"wb\").write(zlib.compress(p, 1))"));
  ASSERT_TRUE(gz.decompressFile((dir / "theirs.gz").c_str(), (dir / "from.gz").c_str()));
  ASSERT_TRUE(gz.decompressFile((dir / "theirs.z").c_str(), (dir / "from.z").c_str()));
  EXPECT_EQ(ReadFile(dir / "from.gz"), original);
  EXPECT_EQ(ReadFile(dir / "from.z"), original);
}
