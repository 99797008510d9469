#include "lib/md5.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

std::string hex(const std::uint8_t (&d)[16]) {
  char out[33];
  for (int i = 0; i < 16; ++i) std::snprintf(out + 2 * i, 3, "%02x", d[i]);
  return out;
}

std::string digest_of(const void* data, std::size_t n) {
  md5_context ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, data, n);
  std::uint8_t d[16];
  MD5Final(d, &ctx);
  return hex(d);
}

std::vector<std::uint8_t> random_bytes(std::size_t n, std::mt19937& rng) {
  std::vector<std::uint8_t> v(n);
  for (auto& b : v) b = static_cast<std::uint8_t>(rng());
  return v;
}

TEST(Md5Digest, Rfc1321Suite) {
  const char* cases[][2] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"1234567890123456789012345678901234567890"
       "1234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"}};
  for (auto& c : cases) EXPECT_EQ(digest_of(c[0], std::strlen(c[0])), c[1]) << '"' << c[0] << '"';
}

TEST(Md5Digest, PiecesGiveTheSameDigestAsOneUpdate) {
  std::mt19937 rng(1321);
  const auto data = random_bytes(5000, rng);
  const std::string whole = digest_of(data.data(), data.size());
  // Piece sizes straddle the block boundary in every way, with empty pieces.
  for (std::size_t piece : {1u, 3u, 55u, 63u, 64u, 65u, 127u, 1000u}) {
    md5_context ctx;
    MD5Init(&ctx);
    for (std::size_t off = 0; off < data.size(); off += piece) {
      MD5Update(&ctx, nullptr, 0);
      MD5Update(&ctx, std::span(data).subspan(off, std::min(piece, data.size() - off)));
    }
    std::uint8_t d[16];
    MD5Final(d, &ctx);
    EXPECT_EQ(hex(d), whole) << "piece " << piece;
  }
}

TEST(Md5Digest, BitCountCarriesAndWrapsAt64Bits) {
  md5_context ctx;
  MD5Init(&ctx);
  ctx.count[0] = 0xfffffff8u;  // one byte short of the low word's end
  MD5Update(&ctx, "x", 1);
  EXPECT_EQ(ctx.count[0], 0u);
  EXPECT_EQ(ctx.count[1], 1u);
  ctx.count[0] = 0xfffffff8u;
  ctx.count[1] = 0xffffffffu;
  MD5Update(&ctx, "x", 1);
  EXPECT_EQ(ctx.count[0], 0u);
  EXPECT_EQ(ctx.count[1], 0u);
}

TEST(Md5File, MatchesMd5sumOnFilesOfManySizes) {
  std::mt19937 rng(20240601);
  std::vector<std::size_t> sizes = {0, 1, 55, 56, 63, 64, 65, 511, 512, 513, 16384, 16385};
  for (int i = 0; i < 4; ++i) sizes.push_back(rng() % (1u << 20));
  std::string path = testing::TempDir() + "md5_test_XXXXXX";
  int fd = mkstemp(path.data());
  ASSERT_GE(fd, 0);
  close(fd);
  for (std::size_t n : sizes) {
    const auto data = random_bytes(n, rng);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    if (n != 0) {
      ASSERT_EQ(std::fwrite(data.data(), 1, n, f), n);
    }
    std::fclose(f);

    char expected[64] = {};
    std::FILE* p = popen(("md5sum " + path).c_str(), "r");
    ASSERT_NE(p, nullptr);
    ASSERT_NE(std::fgets(expected, sizeof expected, p), nullptr);
    pclose(p);

    std::uint8_t d[16];
    ASSERT_EQ(get_file_md5(path.c_str(), d), 0);
    EXPECT_EQ(hex(d), std::string(expected, 32)) << "size " << n;
  }
  std::remove(path.c_str());
}

TEST(Md5File, MissingFileReturns1AndLeavesDigest) {
  std::uint8_t d[16];
  std::memset(d, 0xA5, sizeof d);
  EXPECT_EQ(get_file_md5("/nonexistent/kolta/md5_test", d), 1);
  for (std::uint8_t b : d) EXPECT_EQ(b, 0xA5);
}

TEST(Md5Text, PrintWritesUpperCaseAndNewline) {
  std::uint8_t d[16];
  ASSERT_EQ(text2md5sig("d41d8cd98f00b204e9800998ecf8427e", d), 0);
  std::FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  print_md5_sig(f, d);
  std::rewind(f);
  char buf[64] = {};
  const std::size_t n = std::fread(buf, 1, sizeof buf - 1, f);
  std::fclose(f);
  EXPECT_EQ(std::string(buf, n), "D41D8CD98F00B204E9800998ECF8427E\n");
  EXPECT_EQ(digest_of("", 0), hex(d));
}

TEST(Md5Text, ParseAcceptsEitherCaseAndIgnoresTail) {
  std::uint8_t lower[16], upper[16], tail[16];
  EXPECT_EQ(text2md5sig("0123456789abcdefABCDEF0011223344", lower), 0);
  EXPECT_EQ(text2md5sig("0123456789ABCDEFabcdef0011223344", upper), 0);
  EXPECT_EQ(hex(lower), "0123456789abcdefabcdef0011223344");
  EXPECT_EQ(md5_check_signature(lower, upper), 0);
  EXPECT_EQ(text2md5sig("0123456789ABCDEFABCDEF0011223344 junk g", tail), 0);
  EXPECT_EQ(md5_check_signature(tail, upper), 0);
}

TEST(Md5Text, ParseRejectsShortOrBadTextKeepingEarlierBytes) {
  std::uint8_t s[16];
  std::memset(s, 0xEE, sizeof s);
  EXPECT_EQ(text2md5sig("", s), 1);
  for (std::uint8_t b : s) EXPECT_EQ(b, 0);  // zeroed before the first pair
  EXPECT_EQ(text2md5sig("d41d8cd98f00b204e9800998ecf8427", s), 1);  // 31 digits
  EXPECT_EQ(s[14], 0x42);  // the pairs before the short one were stored
  EXPECT_EQ(s[15], 0);
  EXPECT_EQ(text2md5sig("d41d8cd98f00b204 9800998ecf8427e", s), 1);
  EXPECT_EQ(text2md5sig("d41d8cd98f00b204e9800998ecf8427g", s), 1);
  EXPECT_EQ(s[15], 0);
  EXPECT_EQ(text2md5sig("g41d8cd98f00b204e9800998ecf8427e", s), 1);
}

TEST(Md5Text, CheckSignatureIsExactByteEquality) {
  std::uint8_t a[16] = {}, b[16] = {};
  EXPECT_EQ(md5_check_signature(a, b), 0);
  for (int i : {0, 7, 15}) {
    b[i] = 1;
    EXPECT_EQ(md5_check_signature(a, b), 1) << i;
    b[i] = 0;
  }
}

}  // namespace
