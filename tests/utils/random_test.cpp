#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kova_random.h"

using namespace KOVA::RANDOM;

namespace {

// Hands out a fixed script of bytes (zeros after it), or fails once more than `fail_after`
// bytes are asked for: shows exactly how bytes become characters and numbers.
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

TEST(Random, StringsFromThePoolsAreEvenAndDiffer) {
  EXPECT_STREQ("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz",
               POOL_ALPHA_NUMERIC);
  EXPECT_STREQ("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_",
               POOL_URL_FRIENDLY);
  KOVARandom random;
  // Every pool character appears and none is more than 5% off its share (about five standard
  // deviations at this size).
  for (char const* pool : {POOL_ALPHA_NUMERIC, POOL_URL_FRIENDLY}) {
    std::size_t const size = strlen(pool), per_char = 10000;
    std::string out;
    ASSERT_TRUE(random.getString(pool, size * per_char, out));
    std::map<char, std::size_t> counts;
    for (char c : out) ++counts[c];
    EXPECT_EQ(size, counts.size()) << "every pool character appears, nothing else";
    for (char const* p = pool; *p; ++p) {
      EXPECT_GT(counts[*p], per_char * 95 / 100) << *p;
      EXPECT_LT(counts[*p], per_char * 105 / 100) << *p;
    }
  }
  std::string a, b;
  ASSERT_TRUE(random.getString(POOL_ALPHA_NUMERIC, 32, a));
  ASSERT_TRUE(random.getString(POOL_ALPHA_NUMERIC, 32, b));
  EXPECT_NE(a, b);
  std::string out = "kept";
  EXPECT_TRUE(random.getString(POOL_URL_FRIENDLY, 0, out));
  EXPECT_EQ("", out);
  out = "kept";
  EXPECT_FALSE(random.getString("", 5, out));
  EXPECT_EQ("kept", out);
}

TEST(Random, RangesAreInclusive) {
  KOVARandom random;
  std::map<int, int> seen;
  for (int i = 0; i < 20000; ++i) ++seen[random.random(0, 99)];
  ASSERT_EQ(100u, seen.size());
  EXPECT_EQ(0, seen.begin()->first);
  EXPECT_EQ(99, seen.rbegin()->first);
  EXPECT_EQ(5, random.random(5, 5));
  EXPECT_EQ(7, random.random(7, 1));
  // The whole int range: both halves are reached.
  std::set<bool> negative;
  for (int i = 0; i < 200; ++i) negative.insert(random.random(INT_MIN, INT_MAX) < 0);
  EXPECT_EQ(2u, negative.size());
}

TEST(Random, ScriptedBytesRejectionAndFailure) {
  // 62 characters: bytes 248..255 would favour the first eight characters and are skipped.
  std::string out;
  ASSERT_TRUE(ScriptedSource({248, 255, 7, 247, 62, 0}).getString(POOL_ALPHA_NUMERIC, 4, out));
  EXPECT_EQ("7z00", out);
  // 64 characters divide 256: every byte is used.
  ASSERT_TRUE(ScriptedSource({255, 64, 63}).getString(POOL_URL_FRIENDLY, 3, out));
  EXPECT_EQ("_0_", out);
  // A range of 3: byte 255 is the one left over.
  EXPECT_EQ(10 + 254 % 3, ScriptedSource({255, 254, 5}).random(10, 12));
  // A range of 1000 takes 32-bit words; the last 296 word values are rejected.
  EXPECT_EQ(1, ScriptedSource({0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe, 0xd8, 0, 0, 0x03, 0xe9})
                   .random(0, 999));
  // 4294966999, the last accepted word.
  EXPECT_EQ(-1000 + static_cast<int>(4294966999u % 1000),
            ScriptedSource({0xff, 0xff, 0xfe, 0xd7}).random(-1000, -1));

  // A failing source is reported; a source that fails part-way gives no partial string.
  out = "kept";
  ScriptedSource broken({}, 0);
  EXPECT_FALSE(broken.getString(POOL_ALPHA_NUMERIC, 9, out));
  EXPECT_EQ(-4, broken.random(-4, 100));
  EXPECT_FALSE(ScriptedSource({1, 2, 3}, 300).getString(POOL_ALPHA_NUMERIC, 1000, out));
  EXPECT_EQ("kept", out);
}
