#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <string>
#include <vector>

#include "kovasharing/utils.h"

using namespace KOVA::sharing;

TEST(Digest, KnownVectors) {
  auto sha1 = [](std::string const& password, std::string const& salt) {
    std::string out;
    EXPECT_TRUE(Sha1WithSaltHashPassword(password, salt, out));
    return out;
  };
  // Password first, salt second, nothing between; an empty password is accepted.
  EXPECT_EQ("da23614e02469a0d7c7bd1bdab5c9c474b1904dc", sha1("a", "b"));  // SHA-1 of "ab"
  EXPECT_EQ("6c0596b8ac609191181a90517d51c0b486f23799", sha1("b", "a"));  // SHA-1 of "ba"
  EXPECT_EQ("da23614e02469a0d7c7bd1bdab5c9c474b1904dc", sha1("", "ab"));

  std::string out = "previous";
  EXPECT_FALSE(MD5HashPassword("", out));
  EXPECT_EQ("previous", out);
  ASSERT_TRUE(MD5HashPassword("abc", out));
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", out);
  // The whole byte string counts, an embedded zero byte included.
  ASSERT_TRUE(MD5HashPassword(std::string("a\0b", 3), out));
  EXPECT_EQ("70350f6027bce3713f6b76473084309b", out);
}

TEST(ProbabilityHit, WholePercentTruncated) {
  auto hits = [](float probability, int draws) {
    int n = 0;
    for (int i = 0; i < draws; ++i) n += IsProbabilityHit(probability) ? 1 : 0;
    return n;
  };
  for (float p : {1.0f, 2.0f, 1e30f}) EXPECT_EQ(1000, hits(p, 1000)) << p;
  for (float p : {0.0f, 0.009f, -0.5f, -1e30f, std::nanf("")}) EXPECT_EQ(0, hits(p, 3000)) << p;
  // 0.01 is exactly one percent (r = 0 only); 0.999 is 99 whole percent (r = 99 misses).
  EXPECT_NEAR(200, hits(0.01f, 20000), 99);
  EXPECT_NEAR(10000, hits(0.5f, 20000), 699);
  EXPECT_NEAR(19800, hits(0.999f, 20000), 99);
}

TEST(StringExplode, WholeDelimiterNoEmptyPiecesRefusedDelimiters) {
  using Pieces = std::vector<std::string>;
  auto explode = [](char const* text, char const* delimiter) {
    Pieces out = {"old"};
    EXPECT_TRUE(StringExplode(out, text, delimiter));
    return out;
  };
  EXPECT_EQ((Pieces{"a", "b"}), explode(",a,,b,", ","));
  EXPECT_EQ((Pieces{"a", "b"}), explode("a, b", ", "));
  EXPECT_EQ((Pieces{"a,b"}), explode("a,b", ", "));
  EXPECT_EQ((Pieces{"a"}), explode("aaa", "aa"));
  EXPECT_EQ((Pieces{}), explode("", ","));
  Pieces out = {"kept", "too"};
  EXPECT_FALSE(StringExplode(out, "a,b", nullptr));
  EXPECT_FALSE(StringExplode(out, "a,b", ""));
  EXPECT_EQ((Pieces{"kept", "too"}), out);
}

TEST(ToString, Forms) {
  EXPECT_EQ("-5", ToString<int const>(-5));
  EXPECT_EQ("-9223372036854775808", ToString<long const>(LONG_MIN));
  EXPECT_EQ("1", ToString<bool const>(true));
  EXPECT_EQ("0", ToString<bool const>(false));
  bool no = false;
  std::string text = "a b'c";
  EXPECT_EQ("0", ToString<bool>(no));  // "1" is the URL tool's flag argument
  EXPECT_EQ("a b'c", ToString<std::string>(text));
}
