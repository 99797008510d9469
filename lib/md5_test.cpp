#include "lib/md5.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>

namespace {

std::string hex(const std::uint8_t (&d)[16]) {
  char out[33];
  for (int i = 0; i < 16; ++i) std::snprintf(out + 2 * i, 3, "%02x", d[i]);
  return out;
}

std::string digest_of(const std::string& data) {
  md5_context ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, data.data(), data.size());
  std::uint8_t d[16];
  MD5Final(d, &ctx);
  return hex(d);
}

std::string random_bytes(std::size_t n, std::mt19937& rng) {
  std::string s(n, '\0');
  for (char& b : s) b = static_cast<char>(rng());
  return s;
}

TEST(Md5Digest, Rfc1321SuiteAndEveryByteValue) {
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
  for (auto& c : cases) EXPECT_EQ(digest_of(c[0]), c[1]) << '"' << c[0] << '"';
  std::string all(256, '\0');
  for (int i = 0; i < 256; ++i) all[i] = static_cast<char>(i);
  EXPECT_EQ(digest_of(all), "e2c865db4162bed963bfaa9ef6ac18f0");
}

TEST(Md5Digest, PiecesGiveTheSameDigestAsOneUpdate) {
  std::mt19937 rng(1321);
  const std::string data = random_bytes(5000, rng), whole = digest_of(data);
  // Piece sizes straddle the block boundary in every way, with empty pieces.
  for (std::size_t piece : {1u, 3u, 55u, 63u, 64u, 65u, 127u, 1000u}) {
    md5_context ctx;
    MD5Init(&ctx);
    for (std::size_t off = 0; off < data.size(); off += piece) {
      MD5Update(&ctx, nullptr, 0);
      MD5Update(&ctx, {reinterpret_cast<const std::uint8_t*>(data.data()) + off,
                       std::min(piece, data.size() - off)});
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

TEST(Md5File, DigestOfManySizesOrNoneForAMissingFile) {
  std::mt19937 rng(20240601);
  const std::string path = testing::TempDir() + "kolta_md5_test." + std::to_string(getpid());
  for (std::size_t n : {0, 1, 55, 56, 63, 64, 65, 511, 512, 513, 16384, 16385, 700001}) {
    const std::string data = random_bytes(n, rng);
    std::ofstream(path, std::ios::binary) << data;
    std::uint8_t d[16];
    ASSERT_EQ(get_file_md5(path.c_str(), d), 0);
    EXPECT_EQ(hex(d), digest_of(data)) << "size " << n;
  }
  std::remove(path.c_str());

  std::uint8_t d[16];
  std::memset(d, 0xA5, sizeof d);
  EXPECT_EQ(get_file_md5("/nonexistent/kolta/md5_test", d), 1);
  for (std::uint8_t b : d) EXPECT_EQ(b, 0xA5) << "a missing file leaves the digest";
}

TEST(Md5Text, PrintWritesUpperCaseAndNewline) {
  std::uint8_t d[16];
  ASSERT_EQ(text2md5sig("d41d8cd98f00b204e9800998ecf8427e", d), 0);
  EXPECT_EQ(hex(d), digest_of(""));
  char* buf = nullptr;
  std::size_t size = 0;
  std::FILE* f = open_memstream(&buf, &size);
  ASSERT_NE(f, nullptr);
  print_md5_sig(f, d);
  std::fclose(f);
  EXPECT_EQ(std::string(buf, size), "D41D8CD98F00B204E9800998ECF8427E\n");
  std::free(buf);
}

// Either case, and nothing after the 32nd character is looked at. On failure
// the signature holds zeros but for the pairs converted before the bad one.
TEST(Md5Text, ParseKeepsThePairsBeforeABadOne) {
  const char* cases[][3] = {
      {"0123456789abcdefABCDEF0011223344", "0", "0123456789abcdefabcdef0011223344"},
      {"0123456789ABCDEFabcdef0011223344 junk g", "0", "0123456789abcdefabcdef0011223344"},
      {"", "1", "00000000000000000000000000000000"},
      {"d41d8cd98f00b204e9800998ecf8427", "1", "d41d8cd98f00b204e9800998ecf84200"},
      {"d41d8cd98f00b204 9800998ecf8427e", "1", "d41d8cd98f00b2040000000000000000"},
      {"d41d8cd98f00b204e9800998ecf8427g", "1", "d41d8cd98f00b204e9800998ecf84200"},
      {"g41d8cd98f00b204e9800998ecf8427e", "1", "00000000000000000000000000000000"},
  };
  for (const auto& c : cases) {
    std::uint8_t sig[16];
    std::memset(sig, 0xEE, sizeof sig);
    EXPECT_EQ(text2md5sig(c[0], sig), std::atoi(c[1])) << c[0];
    EXPECT_EQ(hex(sig), c[2]) << c[0];
  }
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
