// Digests, the purges' probability draw, string helpers and the random source.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "kova_random.h"
#include "kovasharing/utils.h"

using namespace KOVA::sharing;
using namespace KOVA::RANDOM;

namespace {

// Hands out a fixed script of bytes (zeros after it), or fails once more than `fail_after`
// bytes are asked for: shows how bytes become characters and numbers.
class ScriptedSource : public KOVARandomBase {
 public:
  explicit ScriptedSource(std::vector<unsigned char> script, std::size_t fail_after = SIZE_MAX)
      : script_(std::move(script)), left_(fail_after) {}

 protected:
  bool bytes(void* buf, std::size_t n) override {
    if (n > left_) return false;
    left_ -= n;
    for (std::size_t i = 0; i < n; ++i, ++next_) {
      static_cast<unsigned char*>(buf)[i] = next_ < script_.size() ? script_[next_] : 0;
    }
    return true;
  }

 private:
  std::vector<unsigned char> script_;
  std::size_t left_, next_ = 0;
};

}  // namespace

TEST(Digest, KnownVectors) {
  std::string out = "previous";
  // Password first, salt second, nothing between; an empty password is accepted.
  for (auto const& [password, salt] : {std::pair{"a", "b"}, {"", "ab"}}) {
    ASSERT_TRUE(Sha1WithSaltHashPassword(password, salt, out));
    EXPECT_EQ("da23614e02469a0d7c7bd1bdab5c9c474b1904dc", out);  // SHA-1 of "ab"
  }
  EXPECT_FALSE(MD5HashPassword("", out));
  ASSERT_TRUE(MD5HashPassword(std::string("a\0b", 3), out));  // the zero byte counts
  EXPECT_EQ("70350f6027bce3713f6b76473084309b", out);
}

TEST(ProbabilityHit, WholePercentTruncated) {
  auto hits = [](float probability, int draws) {
    int n = 0;
    for (int i = 0; i < draws; ++i) n += IsProbabilityHit(probability) ? 1 : 0;
    return n;
  };
  for (float p : {1.0f, 1e30f}) EXPECT_EQ(1000, hits(p, 1000)) << p;
  for (float p : {0.0f, 0.009f, -1e30f, std::nanf("")}) EXPECT_EQ(0, hits(p, 3000)) << p;
  // 0.01 is exactly one percent; 0.999 is 99 whole percent.
  EXPECT_NEAR(200, hits(0.01f, 20000), 99);
  EXPECT_NEAR(19800, hits(0.999f, 20000), 99);
}

TEST(Strings, ExplodeAndTextForms) {
  using Pieces = std::vector<std::string>;
  std::vector<std::tuple<char const*, char const*, Pieces>> const cases = {
      {",a,,b,", ",", {"a", "b"}},
      {"a, b", ", ", {"a", "b"}},
      {"a,b", ", ", {"a,b"}},
      {"aaa", "aa", {"a"}},
      {"", ",", {}}};
  for (auto const& [text, delimiter, pieces] : cases) {
    Pieces out = {"old"};
    EXPECT_TRUE(StringExplode(out, text, delimiter));
    EXPECT_EQ(pieces, out) << text;
  }
  Pieces out = {"kept"};
  EXPECT_FALSE(StringExplode(out, "a,b", nullptr) || StringExplode(out, "a,b", ""));
  EXPECT_EQ(Pieces{"kept"}, out);
  bool no = false;
  EXPECT_EQ("-5 -9223372036854775808 1 0",
            ToString<int const>(-5) + " " + ToString<long const>(LONG_MIN) + " " +
                ToString<bool const>(true) + " " + ToString<bool>(no));
}

TEST(Random, EvenPoolsInclusiveRangesAndRejection) {
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
  std::map<int, int> seen;
  for (int i = 0; i < 20000; ++i) ++seen[random.random(0, 99)];
  EXPECT_EQ("100 0 99", std::to_string(seen.size()) + " " + std::to_string(seen.begin()->first) +
                            " " + std::to_string(seen.rbegin()->first));
  EXPECT_EQ(7, random.random(7, 1));

  // 62 characters: bytes 248..255 would favour the first eight and are skipped; 64 divide 256.
  std::string out;
  ASSERT_TRUE(ScriptedSource({248, 255, 7, 247, 62, 0}).getString(POOL_ALPHA_NUMERIC, 4, out));
  EXPECT_EQ("7z00", out);
  ASSERT_TRUE(ScriptedSource({255, 64, 63}).getString(POOL_URL_FRIENDLY, 3, out));
  EXPECT_EQ("_0_", out);
  // A range of 1000 takes 32-bit words; the last 296 word values are rejected.
  EXPECT_EQ(1, ScriptedSource({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe, 0xd8, 0, 0, 0x03, 0xe9})
                   .random(0, 999));
  // A source that fails part-way gives no partial string.
  EXPECT_FALSE(ScriptedSource({1, 2, 3}, 300).getString(POOL_ALPHA_NUMERIC, 1000, out));
  EXPECT_EQ("_0_", out);
  EXPECT_EQ(-4, ScriptedSource({}, 0).random(-4, 100));
}
