#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "kovasharing/utils.h"

using KOVA::sharing::IsProbabilityHit;
using KOVA::sharing::MD5HashPassword;
using KOVA::sharing::Sha1WithSaltHashPassword;
using KOVA::sharing::StringExplode;
using KOVA::sharing::ToString;

namespace {

int Hits(float probability, int draws) {
  int hits = 0;
  for (int i = 0; i < draws; ++i) hits += IsProbabilityHit(probability) ? 1 : 0;
  return hits;
}

}  // namespace

TEST(Digest, SaltedSha1IsPasswordThenSalt) {
  std::string out;
  ASSERT_TRUE(Sha1WithSaltHashPassword("a", "b", out));
  EXPECT_EQ("da23614e02469a0d7c7bd1bdab5c9c474b1904dc", out);  // SHA-1 of "ab"
  // The other order is the digest of "ba".
  ASSERT_TRUE(Sha1WithSaltHashPassword("b", "a", out));
  EXPECT_EQ("6c0596b8ac609191181a90517d51c0b486f23799", out);
  std::string ba;
  ASSERT_TRUE(Sha1WithSaltHashPassword("ba", "", ba));
  EXPECT_EQ(ba, out);
  // Nothing between the two parts, and an empty password is accepted.
  std::string salt_only;
  ASSERT_TRUE(Sha1WithSaltHashPassword("", "ab", salt_only));
  EXPECT_EQ("da23614e02469a0d7c7bd1bdab5c9c474b1904dc", salt_only);
  ASSERT_TRUE(Sha1WithSaltHashPassword("", "", out));
  EXPECT_EQ("da39a3ee5e6b4b0d3255bfef95601890afd80709", out);
  ASSERT_TRUE(Sha1WithSaltHashPassword("abc", "", out));
  EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d", out);
  EXPECT_EQ(40u, out.size());
}

TEST(Digest, Md5) {
  std::string out = "previous";
  EXPECT_FALSE(MD5HashPassword("", out));
  EXPECT_EQ("previous", out);
  ASSERT_TRUE(MD5HashPassword("abc", out));
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", out);
  ASSERT_TRUE(MD5HashPassword("The quick brown fox jumps over the lazy dog", out));
  EXPECT_EQ("9e107d9d372bb6826bd81d3542a419d6", out);
  // The whole byte string counts, an embedded zero byte included.
  ASSERT_TRUE(MD5HashPassword(std::string("a\0b", 3), out));
  EXPECT_EQ("70350f6027bce3713f6b76473084309b", out);
  EXPECT_EQ(32u, out.size());
}

TEST(ProbabilityHit, WholePercentTruncated) {
  EXPECT_EQ(2000, Hits(1.0f, 2000));
  EXPECT_EQ(2000, Hits(2.0f, 2000));
  EXPECT_EQ(500, Hits(1e30f, 500));
  EXPECT_EQ(0, Hits(0.0f, 2000));
  EXPECT_EQ(0, Hits(0.009f, 5000));
  EXPECT_EQ(0, Hits(-0.5f, 2000));
  EXPECT_EQ(0, Hits(-1e30f, 500));
  EXPECT_EQ(0, Hits(std::nanf(""), 500));
  // 0.01 is exactly one percent: r must be 0, about once in a hundred.
  int const one = Hits(0.01f, 20000);
  EXPECT_GT(one, 100);
  EXPECT_LT(one, 320);
  int const half = Hits(0.5f, 20000);
  EXPECT_GT(half, 9300);
  EXPECT_LT(half, 10700);
  // 0.999 is 99 whole percent: r = 99 never hits.
  int const most = Hits(0.999f, 20000);
  EXPECT_GT(most, 19600);
  EXPECT_LT(most, 19950);
}

TEST(StringExplode, WholeDelimiterAndNoEmptyPieces) {
  std::vector<std::string> out = {"old"};
  ASSERT_TRUE(StringExplode(out, ",a,,b,", ","));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), out);
  ASSERT_TRUE(StringExplode(out, "a, b", ", "));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), out);
  ASSERT_TRUE(StringExplode(out, "a,b", ", "));
  EXPECT_EQ((std::vector<std::string>{"a,b"}), out);
  ASSERT_TRUE(StringExplode(out, "aaa", "aa"));
  EXPECT_EQ((std::vector<std::string>{"a"}), out);
  ASSERT_TRUE(StringExplode(out, "x::y::::z", "::"));
  EXPECT_EQ((std::vector<std::string>{"x", "y", "z"}), out);
  ASSERT_TRUE(StringExplode(out, "single", "|"));
  EXPECT_EQ((std::vector<std::string>{"single"}), out);
  ASSERT_TRUE(StringExplode(out, ",,,", ","));
  EXPECT_TRUE(out.empty());
  out = {"kept"};
  ASSERT_TRUE(StringExplode(out, "", ","));
  EXPECT_TRUE(out.empty());
}

TEST(StringExplode, RefusedDelimiters) {
  std::vector<std::string> out = {"kept", "too"};
  EXPECT_FALSE(StringExplode(out, "a,b", nullptr));
  EXPECT_EQ((std::vector<std::string>{"kept", "too"}), out);
  EXPECT_FALSE(StringExplode(out, "a,b", ""));
  EXPECT_EQ((std::vector<std::string>{"kept", "too"}), out);
}

TEST(ToString, Forms) {
  int const minus_five = -5;
  int const zero = 0;
  int const int_min = INT_MIN;
  long const long_max = LONG_MAX;
  long const long_min = LONG_MIN;
  long const big = 1234567;
  bool const yes = true;
  bool const no = false;
  bool flag_true = true;
  bool flag_false = false;
  std::string text = "a b'c";
  EXPECT_EQ("-5", ToString<int const>(minus_five));
  EXPECT_EQ("0", ToString<int const>(zero));
  EXPECT_EQ("-2147483648", ToString<int const>(int_min));
  EXPECT_EQ("9223372036854775807", ToString<long const>(long_max));
  EXPECT_EQ("-9223372036854775808", ToString<long const>(long_min));
  EXPECT_EQ("1234567", ToString<long const>(big));
  EXPECT_EQ("1", ToString<bool const>(yes));
  EXPECT_EQ("0", ToString<bool const>(no));
  EXPECT_EQ("1", ToString<bool>(flag_true));
  EXPECT_EQ("0", ToString<bool>(flag_false));
  EXPECT_EQ("a b'c", ToString<std::string>(text));
}
