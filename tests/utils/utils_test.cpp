// The utilities: digests, the purges' probability draw, string splitting and the random source.
#include "kovasharing/utils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "kova_random.h"

using namespace KOVA::sharing;
using namespace KOVA::RANDOM;

TEST(Utils, DigestsProbabilityExplodeAndRandom) {
  std::string out = "previous";
  // Password first, salt second, nothing between; an empty password is accepted.
  for (auto const& [password, salt] : {std::pair{"a", "b"}, {"", "ab"}}) {
    ASSERT_TRUE(Sha1WithSaltHashPassword(password, salt, out));
    EXPECT_EQ("da23614e02469a0d7c7bd1bdab5c9c474b1904dc", out);  // SHA-1 of "ab"
  }
  EXPECT_FALSE(MD5HashPassword("", out));
  ASSERT_TRUE(MD5HashPassword(std::string("a\0b", 3), out));  // the zero byte counts
  EXPECT_EQ("70350f6027bce3713f6b76473084309b", out);

  // Whole percents, truncated: 0.01 is one percent, 0.999 is 99.
  auto hits = [](float probability, int draws) {
    int n = 0;
    for (int i = 0; i < draws; ++i) n += IsProbabilityHit(probability) ? 1 : 0;
    return n;
  };
  for (float p : {1.0f, 1e30f}) EXPECT_EQ(1000, hits(p, 1000)) << p;
  for (float p : {0.0f, 0.009f, -1e30f, std::nanf("")}) EXPECT_EQ(0, hits(p, 3000)) << p;
  EXPECT_NEAR(200, hits(0.01f, 20000), 99);
  EXPECT_NEAR(19800, hits(0.999f, 20000), 99);

  // Empty pieces are dropped; the delimiter is a whole text.
  using Pieces = std::vector<std::string>;
  Pieces split = {"old"}, kept = {"kept"};
  EXPECT_TRUE(StringExplode(split, ",a,,b, c", ", "));
  EXPECT_EQ((Pieces{",a,,b", "c"}), split);
  EXPECT_TRUE(StringExplode(split, ",a,,b,", ","));
  EXPECT_EQ((Pieces{"a", "b"}), split);
  EXPECT_FALSE(StringExplode(kept, "a,b", nullptr) || StringExplode(kept, "a,b", ""));
  EXPECT_EQ(Pieces{"kept"}, kept);

  KOVARandom random;
  // Every pool character appears, none more than 5% off its share (about five deviations).
  for (char const* pool : {POOL_ALPHA_NUMERIC, POOL_URL_FRIENDLY}) {
    std::size_t const size = strlen(pool), per_char = 10000;
    std::string out;
    ASSERT_TRUE(random.getString(pool, size * per_char, out));
    std::map<char, std::size_t> counts;
    for (char c : out) ++counts[c];
    EXPECT_EQ(size, counts.size());
    for (char const* p = pool; *p; ++p) EXPECT_NEAR(per_char, counts[*p], per_char / 20) << *p;
  }
  EXPECT_EQ(7, random.random(7, 1));  // the whole range 0 to 99 shows in the percents above
}
